#include "layer/dynactivation_layer.h"

#include <cmath>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "kernels/tensor.h"

namespace ORVA {

void DynActivationLayer::_shape(bool from_file, const InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  if (_in_h < 1 || _in_w < 1 || _in_c < 1 || !layer_size_ok(_batch, (long long)_in_h * _in_w * _in_c))
    LAYER_FAULT(from_file, "dynact: input %d x %d x %d, batch %d out of range", _in_w, _in_h, _in_c, _batch);
  if (!std::isfinite(_slope)) LAYER_FAULT(from_file, "dynact: slope %g must be finite", _slope);
}

void DynActivationLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _slope = cfg.findFloat(params.nsect, "slope", 0.25f, true);
  _shape(false, params);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int DynActivationLayer::loadConfig(FILE* fp, InputParams& params) {
  Layer::loadConfig(fp, params);
  chk_fread(&_slope, 4, 1, fp);
  _shape(true, params);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int DynActivationLayer::saveConfig(FILE* fp) {
  Layer::saveConfig(fp);
  chk_fwrite(&_slope, 4, 1, fp);
  return 0;
}

int DynActivationLayer::loadWeight(FILE* fp, bool quant) {
  cuda_fread(_gpu_handle, _weight, _weights, fp);
  return 0;
}

int DynActivationLayer::saveWeight(FILE* fp) {
  cuda_fwrite(_gpu_handle, _weight, _weights, fp);
  return 0;
}

void DynActivationLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _makeLayer(params.quant, params.fast);
}

void DynActivationLayer::_makeLayer(bool quant, bool fast) {
  _out_h = _in_h;
  _out_w = _in_w;
  _out_c = _in_c;
  _inputs = _outputs = _in_h * _in_w * _in_c;
  // A remake (resize) keeps the learned slopes.
  if (_weights != _in_c) {
    layer_release(_gpu_handle, _weight);
    layer_release(_gpu_handle, _weight_update);
    _weights = _in_c;
    _weight = layer_tensor(_gpu_handle, _weights, false);
    blas_fill(_gpu_handle, _weights, _slope, _weight);
    if (mode) _weight_update = layer_tensor(_gpu_handle, _weights, true);
  }
  layer_make_output(this);
  ORVA_MSG(INFO, "dynact      %5.2f      %4d x%4d x%4d   ->  %4d x%4d x%4d\n", _slope, _in_w, _in_h, _in_c, _out_w,
           _out_h, _out_c);
}

void DynActivationLayer::forward(NetworkParams& params) {
  tensor_prelu(_gpu_handle, layer_pass_batch(params, _batch), _in_c, _in_w * _in_h, params.input, _weight, _output);
}

void DynActivationLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  tensor_prelu_backward(_gpu_handle, _batch, _in_c, _in_w * _in_h, params.input, _weight, _delta, params.delta,
                        _weight_update);
}

// Gradient descent with momentum, as the convolution's biases: the slopes take no decay.
void DynActivationLayer::update(int batch, float rate, float momentum, float decay) {
  if (!_weight_update) return;
  const float r = rate * _learning_rate_scale / batch;
  blas_axpy(_gpu_handle, _weights, r, _weight_update, _weight);
  blas_scale(_gpu_handle, _weights, momentum, _weight_update);
}

}  // namespace ORVA
