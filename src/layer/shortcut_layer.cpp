#include "layer/shortcut_layer.h"

#include <cmath>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/orva.h"
#include "kernels/tensor.h"

namespace ORVA {

ShortcutLayer::~ShortcutLayer() { ShortcutLayer::_freeLayer(); }

namespace {
// Sizes that blas_shortcut combines without stepping past either tensor: one side a whole
// multiple of the other, by the same ratio across and down.
bool combinable(int w1, int h1, int w2, int h2) {
  if (w1 >= w2) return w1 % w2 == 0 && h1 % h2 == 0 && w1 / w2 == h1 / h2;
  return w2 % w1 == 0 && h2 % h1 == 0 && w2 / w1 == h2 / h1;
}
}  // namespace

void ShortcutLayer::_shape(bool from_file, const InputParams& params) {
  _net = params.net;
  _batch = params.batch;
  _out_h = params.h;
  _out_w = params.w;
  _out_c = params.c;
  if (_out_h < 1 || _out_w < 1 || _out_c < 1)
    LAYER_FAULT(from_file, "shortcut: the previous layer's output %d x %d x %d is not an image", _out_w, _out_h, _out_c);
  if (_from >= params.index && params.index > 0)
    LAYER_FAULT(from_file, "shortcut: from %d is not an earlier layer than %d", _from, params.index);
  if (_from >= 0) {
    Layer* src = _net ? _net->getLayer(_from) : nullptr;
    if (!src) LAYER_FAULT(from_file, "shortcut: from %d names no layer", _from);
    _in_w = src->_out_w;
    _in_h = src->_out_h;
    _in_c = src->_out_c;
  } else {
    if (!_net) LAYER_FAULT(from_file, "shortcut: the network input needs the network");
    _in_w = _net->iW;
    _in_h = _net->iH;
    _in_c = _net->iC;
  }
  if (_in_w < 1 || _in_h < 1 || _in_c < 1 || !combinable(_in_w, _in_h, _out_w, _out_h))
    LAYER_FAULT(from_file, "shortcut: layer %d output %d x %d x %d does not match input %d x %d x %d", _from, _in_w,
                _in_h, _in_c, _out_w, _out_h, _out_c);
  if (!layer_size_ok(_batch, (long long)_out_w * _out_h * _out_c))
    LAYER_FAULT(from_file, "shortcut: output %d x %d x %d, batch %d out of range", _out_w, _out_h, _out_c, _batch);
  if (!std::isfinite(_alpha) || !std::isfinite(_beta))
    LAYER_FAULT(from_file, "shortcut: alpha %g and beta %g must be finite", _alpha, _beta);
  if (_acttype != -1 && !activation_known(_acttype))
    LAYER_FAULT(from_file, "shortcut: activation id %d is unknown", _acttype);
}

void ShortcutLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  const int ns = params.nsect;
  _from = cfg.findInt(ns, "from", 0, true);
  const char* act = cfg.findStr(ns, "activation", nullptr, true);
  _acttype = ActivationType::type(act);
  if (act && _acttype < 0) ORVA_FATAL("shortcut: activation %s is unknown", act);
  _alpha = cfg.findFloat(ns, "alpha", 1.f, true);
  _beta = cfg.findFloat(ns, "beta", 1.f, true);
  Layer::parseConfig(cfg, params);
  if (_from < 0) _from += params.index;
  _shape(false, params);
  _makeLayer(params.quant, params.fast);
}

int ShortcutLayer::loadConfig(FILE* fp, InputParams& params) {
  int record[2];
  chk_fread(record, 4, 2, fp);
  _from = record[0];
  _acttype = record[1];
  chk_fread(&_alpha, 4, 1, fp);
  chk_fread(&_beta, 4, 1, fp);
  Layer::loadConfig(fp, params);
  _shape(true, params);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int ShortcutLayer::saveConfig(FILE* fp) {
  const int record[2] = {_from, _acttype};
  chk_fwrite(record, 4, 2, fp);
  chk_fwrite(&_alpha, 4, 1, fp);
  chk_fwrite(&_beta, 4, 1, fp);
  return Layer::saveConfig(fp);
}

void ShortcutLayer::resize(InputParams& params) {
  InputParams p = params;
  p.index = 0;  // a resize walks made layers only
  _shape(false, p);
  _makeLayer(params.quant, params.fast);
}

void ShortcutLayer::_freeLayer() {
  delete _activation;
  _activation = nullptr;
}

void ShortcutLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _outputs = _out_h * _out_w * _out_c;
  _inputs = _in_w * _in_h * _in_c;
  layer_make_output(this);
  _activation = ActivationType::create(_acttype, _gpu_handle);
  ORVA_MSG(INFO, "shortcut %2d                                ->  %4d x%4d x%4d\n", _from, _out_w, _out_h, _out_c);
}

void ShortcutLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  Ftype* add = _from >= 0 ? _net->getLayer(_from)->_output : params.net ? params.net->getInput() : params.input;
  if (_in_w == _out_w && _in_h == _out_h && _in_c == _out_c) {
    // Same shape: one pass computes what the copy and blas_shortcut would.
    tensor_add_scaled(_gpu_handle, b * _outputs, _alpha, params.input, _beta, add, _output);
  } else {
    blas_copy(_gpu_handle, b * _outputs, params.input, _output);
    blas_shortcut(_gpu_handle, b, _in_w, _in_h, _in_c, add, _out_w, _out_h, _out_c, _alpha, _beta, _output);
  }
  if (_activation) _activation->activate(_output, b * _outputs);
}

void ShortcutLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  const int n = _batch * _outputs;
  if (_activation) _activation->gradient(_output, n, _delta);
  if (params.delta) blas_axpy(_gpu_handle, n, _alpha, _delta, params.delta);
  Layer* src = _from >= 0 ? _net->getLayer(_from) : nullptr;
  if (src && src->_delta)
    blas_shortcut(_gpu_handle, _batch, _out_w, _out_h, _out_c, _delta, _in_w, _in_h, _in_c, 1, _beta, src->_delta);
}

}  // namespace ORVA
