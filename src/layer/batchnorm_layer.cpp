#include "layer/batchnorm_layer.h"

#include "layer/layer_util.h"
#include "orva/blas.h"

namespace ORVA {

BatchnormLayer::~BatchnormLayer() { BatchnormLayer::_freeLayer(); }

void BatchnormLayer::_shape(bool from_file, const InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  if (_in_h < 1 || _in_w < 1 || _in_c < 1 || !layer_size_ok(_batch, (long long)_in_h * _in_w * _in_c))
    LAYER_FAULT(from_file, "batchnorm: input %d x %d x %d, batch %d out of range", _in_w, _in_h, _in_c, _batch);
}

void BatchnormLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _shape(false, params);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int BatchnormLayer::loadConfig(FILE* fp, InputParams& params) {
  _shape(true, params);
  Layer::loadConfig(fp, params);
  _makeLayer(params.quant, params.fast);
  return 0;
}

// The bias is not part of the record: a loaded layer starts from a zero bias, as files of
// this layer have always been written.
int BatchnormLayer::loadWeight(FILE* fp, bool quant) { return _bn->loadWeight(fp); }
int BatchnormLayer::saveWeight(FILE* fp) { return _bn->saveWeight(fp); }

void BatchnormLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _makeLayer(params.quant, params.fast);
}

void BatchnormLayer::_freeLayer() {
  delete _bn;
  _bn = nullptr;
}

void BatchnormLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _out_h = _in_h;
  _out_w = _in_w;
  _out_c = _in_c;
  _inputs = _outputs = _in_h * _in_w * _in_c;
  layer_release(_gpu_handle, _bias);
  layer_release(_gpu_handle, _bias_update);
  _bias = layer_tensor(_gpu_handle, _in_c, true);
  if (mode) _bias_update = layer_tensor(_gpu_handle, _in_c, true);
  layer_make_output(this);
  _bn = new Batchnorm(_in_c, _batch * _outputs, mode, _gpu_handle);
  ORVA_MSG(INFO, "bnorm                   %4d x%4d x%4d\n", _in_w, _in_h, _in_c);
}

void BatchnormLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  blas_copy(_gpu_handle, b * _outputs, params.input, _output);
  _bn->forward(this, b, _out_c, _out_w * _out_h);
}

void BatchnormLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  _bn->backward(this, _batch);
  if (params.delta) blas_copy(_gpu_handle, _batch * _outputs, _delta, params.delta);
}

void BatchnormLayer::update(int batch, float rate, float momentum, float decay) {
  if (!_bn || !mode) return;
  const float r = rate * _learning_rate_scale / batch;
  _bn->update(_in_c, r, momentum);
  // The bias learns with the scale, as it does inside a convolution.
  blas_axpy(_gpu_handle, _in_c, r, _bias_update, _bias);
  blas_scale(_gpu_handle, _in_c, momentum, _bias_update);
}

}  // namespace ORVA
