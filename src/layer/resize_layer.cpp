#include "layer/resize_layer.h"

#include "layer/layer_util.h"
#include "orva/config.h"
#include "kernels/tensor.h"

namespace ORVA {

void ResizeLayer::_check(bool from_file) const {
  if (_in_h < 1 || _in_w < 1 || _in_c < 1) LAYER_FAULT(from_file, "Layer before resize layer must output image.");
  if (_stride < 1 || _stride > 64) LAYER_FAULT(from_file, "resize: stride %d out of range 1..64", _stride);
  if (_width < 0 || _height < 0 || _width > 16384 || _height > 16384 || (_width == 0) != (_height == 0))
    LAYER_FAULT(from_file, "resize: width %d and height %d must both be 0 (by stride) or both in 1..16384", _width,
                _height);
  if (_rule < kResizeAsymmetric || _rule > kResizeHalfPixel)
    LAYER_FAULT(from_file, "resize: coordinate rule %d is not 0, 1 or 2", _rule);
  const long long w = _width ? _width : (long long)_in_w * _stride, h = _height ? _height : (long long)_in_h * _stride;
  if (!layer_size_ok(_batch, w * h * _in_c))
    LAYER_FAULT(from_file, "resize: output of %lld x %lld x %d, batch %d too large", w, h, _in_c, _batch);
}

void ResizeLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  const int ns = params.nsect;
  _stride = cfg.findInt(ns, "stride", 2, true);
  _width = cfg.findInt(ns, "width", 0, true);
  _height = cfg.findInt(ns, "height", 0, true);
  const int align = cfg.findInt(ns, "align_corners", 0, true);
  const int half = cfg.findInt(ns, "half_pixel", 0, true);
  if ((align != 0 && align != 1) || (half != 0 && half != 1) || (align && half))
    ORVA_FATAL("resize: align_corners=%d and half_pixel=%d: each 0 or 1, at most one set", align, half);
  _rule = align ? kResizeAlignCorners : (half ? kResizeHalfPixel : kResizeAsymmetric);
  Layer::parseConfig(cfg, params);
  _check(false);
  _makeLayer(params.quant, params.fast);
}

int ResizeLayer::loadConfig(FILE* fp, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  int rec[4];
  chk_fread(rec, 4, 4, fp);
  _stride = rec[0];
  _width = rec[1];
  _height = rec[2];
  _rule = rec[3];
  Layer::loadConfig(fp, params);
  _check(true);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int ResizeLayer::saveConfig(FILE* fp) {
  const int rec[4] = {_stride, _width, _height, _rule};
  chk_fwrite(rec, 4, 4, fp);
  return Layer::saveConfig(fp);
}

void ResizeLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _check(false);
  _makeLayer(params.quant, params.fast);
}

void ResizeLayer::_makeLayer(bool quant, bool fast) {
  _out_w = _width ? _width : _in_w * _stride;
  _out_h = _height ? _height : _in_h * _stride;
  _out_c = _in_c;
  _inputs = _in_w * _in_h * _in_c;
  _outputs = _out_w * _out_h * _out_c;
  _flops = (size_t)_outputs * 7;
  layer_make_output(this);
  static const char* kRule[] = {"", " corners", " half-pixel"};
  ORVA_MSG(INFO, "resize   bilinear%s  %4d x%4d x%4d   ->  %4d x%4d x%4d\n", kRule[_rule], _in_w, _in_h, _in_c, _out_w,
           _out_h, _out_c);
}

void ResizeLayer::forward(NetworkParams& params) {
  tensor_resize(_gpu_handle, layer_pass_batch(params, _batch), _in_c, _in_w, _in_h, _out_w, _out_h, _rule, params.input,
                _output);
}

void ResizeLayer::backward(NetworkParams& params) {
  if (_delta && params.delta)
    tensor_resize_backward(_gpu_handle, _batch, _in_c, _in_w, _in_h, _out_w, _out_h, _rule, _delta, params.delta);
}

}  // namespace ORVA
