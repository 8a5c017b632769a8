#include "layer/dropout_layer.h"

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "kernels/tensor.h"

namespace ORVA {

DropoutLayer::~DropoutLayer() { DropoutLayer::_freeLayer(); }

void DropoutLayer::_shape(bool from_file, const InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _inputs = params.inputs;
  _batch = params.batch;
  if (!layer_size_ok(_batch, _inputs)) LAYER_FAULT(from_file, "dropout: inputs %d, batch %d out of range", _inputs, _batch);
  if (!(_probability >= 0.f && _probability < 1.f))
    LAYER_FAULT(from_file, "dropout: probability %g out of range [0, 1)", _probability);
}

void DropoutLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _probability = cfg.findFloat(params.nsect, "probability", 0.5f, true);
  _shape(false, params);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int DropoutLayer::loadConfig(FILE* fp, InputParams& params) {
  Layer::loadConfig(fp, params);
  chk_fread(&_probability, 4, 1, fp);
  _shape(true, params);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int DropoutLayer::saveConfig(FILE* fp) {
  Layer::saveConfig(fp);
  chk_fwrite(&_probability, 4, 1, fp);
  return 0;
}

void DropoutLayer::resize(InputParams& params) {
  _shape(false, params);
  _makeLayer(params.quant, params.fast);
}

void DropoutLayer::_freeLayer() { layer_release(_gpu_handle, _rand); }

void DropoutLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _out_h = _in_h;
  _out_w = _in_w;
  _out_c = _in_c;
  _outputs = _inputs;
  _scale = 1.f / (1.f - _probability);
  layer_make_output(this);
  if (mode) _rand = static_cast<float*>(cuda_malloc(_gpu_handle, (size_t)_batch * _inputs * sizeof(float)));
  ORVA_MSG(INFO, "dropout       p = %.2f               %4d  ->  %4d\n", _probability, _inputs, _outputs);
}

void DropoutLayer::forward(NetworkParams& params) {
  const int n = layer_pass_batch(params, _batch) * _inputs;
  if (!mode) {
    blas_copy(_gpu_handle, n, params.input, _output);
    return;
  }
  cuda_random(_gpu_handle, _rand, n);
  tensor_dropout(_gpu_handle, n, params.input, _rand, _probability, _scale, _output);
}

void DropoutLayer::backward(NetworkParams& params) {
  if (_delta && params.delta)
    tensor_dropout_backward(_gpu_handle, _batch * _inputs, _delta, _rand, _probability, _scale, params.delta);
}

}  // namespace ORVA
