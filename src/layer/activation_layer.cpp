#include "layer/activation_layer.h"

#include "layer/layer_util.h"
#include "orva/blas.h"

namespace ORVA {

ActivationLayer::~ActivationLayer() { ActivationLayer::_freeLayer(); }

void ActivationLayer::_shape(bool from_file, const InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _inputs = params.inputs;
  _batch = params.batch;
  if (!layer_size_ok(_batch, _inputs)) LAYER_FAULT(from_file, "activation: inputs %d, batch %d out of range", _inputs, _batch);
}

void ActivationLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _shape(false, params);
  const char* name = cfg.findStr(params.nsect, "activation", "linear");
  _acttype = ActivationType::type(name);
  if (_acttype < 0) ORVA_FATAL("activation: activation %s is unknown", name);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int ActivationLayer::loadConfig(FILE* fp, InputParams& params) {
  _shape(true, params);
  chk_fread(&_acttype, 4, 1, fp);
  Layer::loadConfig(fp, params);
  if (!activation_known(_acttype)) LAYER_FAULT(true, "activation: activation id %d is unknown", _acttype);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int ActivationLayer::saveConfig(FILE* fp) {
  chk_fwrite(&_acttype, 4, 1, fp);
  return Layer::saveConfig(fp);
}

void ActivationLayer::_freeLayer() {
  delete _activation;
  _activation = nullptr;
}

void ActivationLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _out_h = _in_h;
  _out_w = _in_w;
  _out_c = _in_c;
  _outputs = _inputs;
  layer_make_output(this);
  _activation = ActivationType::create(_acttype, _gpu_handle);
  // Printed at every message level, unlike the other layers' lines.
  fprintf(stderr, "activ                                %4d  ->  %4d\n", _inputs, _outputs);
}

void ActivationLayer::forward(NetworkParams& params) {
  const int n = layer_pass_batch(params, _batch) * _outputs;
  blas_copy(_gpu_handle, n, params.input, _output);
  _activation->activate(_output, n);
}

void ActivationLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  _activation->gradient(_output, _batch * _outputs, _delta);
  if (params.delta) blas_copy(_gpu_handle, _batch * _outputs, _delta, params.delta);
}

}  // namespace ORVA
