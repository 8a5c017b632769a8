#include "layer/scalemap_layer.h"

#include "layer/layer_util.h"
#include "orva/orva.h"
#include "kernels/tensor.h"

namespace ORVA {

// The scale comes in as this layer's input (params); the features from layer _from.
void ScalemapLayer::_shape(bool from_file, const InputParams& params) {
  _net = params.net;
  _batch = params.batch;
  const bool earlier = _from >= 0 && (params.index <= 0 || _from < params.index);
  Layer* src = earlier && _net ? _net->getLayer(_from) : nullptr;
  if (!src) LAYER_FAULT(from_file, "%s: from %d names no earlier layer", _name, _from);
  _in_w = params.w;
  _in_h = params.h;
  _in_c = params.c;
  _inputs = params.inputs;
  _out_w = src->_out_w;
  _out_h = src->_out_h;
  _out_c = src->_out_c;
  if (_per_position && (_in_w != _out_w || _in_h != _out_h || _in_c != 1))
    LAYER_FAULT(from_file, "%s: map %d x %d x %d does not fit layer %d output %d x %d (one channel, same size)", _name,
                _in_w, _in_h, _in_c, _from, _out_w, _out_h);
  if (!_per_position && _inputs != _out_c)
    LAYER_FAULT(from_file, "%s: %d factors do not fit the %d channels of layer %d", _name, _inputs, _out_c, _from);
  if (!layer_size_ok(_batch, (long long)_out_w * _out_h * _out_c))
    LAYER_FAULT(from_file, "%s: output %d x %d x %d, batch %d out of range", _name, _out_w, _out_h, _out_c, _batch);
}

void ScalemapLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  if (!cfg.findValue(params.nsect, "from")) ORVA_FATAL("%s: the key from is required", _name);
  _from = cfg.findInt(params.nsect, "from", 0, true);
  if (_from < 0) _from += params.index;
  Layer::parseConfig(cfg, params);
  _shape(false, params);
  _makeLayer(params.quant, params.fast);
}

int ScalemapLayer::loadConfig(FILE* fp, InputParams& params) {
  Layer::loadConfig(fp, params);
  chk_fread(&_from, 4, 1, fp);
  _shape(true, params);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int ScalemapLayer::saveConfig(FILE* fp) {
  Layer::saveConfig(fp);
  chk_fwrite(&_from, 4, 1, fp);
  return 0;
}

void ScalemapLayer::resize(InputParams& params) {
  InputParams p = params;
  p.index = 0;
  _shape(false, p);
  _makeLayer(params.quant, params.fast);
}

void ScalemapLayer::_makeLayer(bool quant, bool fast) {
  _outputs = _out_w * _out_h * _out_c;
  layer_make_output(this);
  ORVA_MSG(INFO, "%-9s %2d                 %4d x%4d x%4d   ->  %4d x%4d x%4d\n", _name, _from, _in_w, _in_h, _in_c,
           _out_w, _out_h, _out_c);
}

void ScalemapLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  Ftype* features = _net->getLayer(_from)->_output;
  tensor_scale(_gpu_handle, b, _out_c, _out_w * _out_h, _per_position, features, params.input, _output);
}

void ScalemapLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  Layer* src = _net->getLayer(_from);
  tensor_scale_backward(_gpu_handle, _batch, _out_c, _out_w * _out_h, _per_position, src->_output, params.input,
                        _delta, src->_delta, params.delta);
}

}  // namespace ORVA
