#include "layer/maxpool_layer.h"

#include "layer/layer_util.h"
#include "kernels/pool.h"

namespace ORVA {

MaxpoolLayer::~MaxpoolLayer() { MaxpoolLayer::_freeLayer(); }

// Shared with the windowed average pool: everything that would make the window walk
// meaningless or the tensors absurd.
void check_pool_window(bool from_file, const char* layer, int in_w, int in_h, int in_c, int batch, int size,
                       int stride, int pad) {
  if (size < 1 || size > kLayerMaxParam) LAYER_FAULT(from_file, "%s: size %d out of range 1..%d", layer, size, kLayerMaxParam);
  if (stride < 1 || stride > kLayerMaxParam)
    LAYER_FAULT(from_file, "%s: stride %d out of range 1..%d", layer, stride, kLayerMaxParam);
  if (pad < 0 || pad > kLayerMaxParam) LAYER_FAULT(from_file, "%s: pad %d out of range 0..%d", layer, pad, kLayerMaxParam);
  const int padded_w = in_w + 2 * pad, padded_h = in_h + 2 * pad;
  if (size > padded_w || size > padded_h)
    LAYER_FAULT(from_file, "%s: size %d exceeds the padded input %d x %d", layer, size, padded_w, padded_h);
  if (stride > padded_w || stride > padded_h)
    LAYER_FAULT(from_file, "%s: stride %d exceeds the padded input %d x %d", layer, stride, padded_w, padded_h);
  const long long outputs = (long long)pool_out_side(in_w, pad, stride) * pool_out_side(in_h, pad, stride) * in_c;
  if (!layer_size_ok(batch, outputs) || !layer_size_ok(batch, (long long)in_w * in_h * in_c))
    LAYER_FAULT(from_file, "%s: input %d x %d x %d, batch %d too large", layer, in_w, in_h, in_c, batch);
}

void MaxpoolLayer::_check(bool from_file) const {
  if (_in_h < 1 || _in_w < 1 || _in_c < 1) LAYER_FAULT(from_file, "Layer before maxpool layer must output image.");
  check_pool_window(from_file, "maxpool", _in_w, _in_h, _in_c, _batch, _size, _stride, _pad);
  if (_centred && _size <= _pad)
    LAYER_FAULT(from_file, "maxpool: centred windows of size %d need pad %d below the size", _size, _pad);
}

void MaxpoolLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  if (!_in_h || !_in_w || !_in_c) ORVA_FATAL("Layer before maxpool layer must output image.");
  _size = cfg.findInt(params.nsect, "size", 1, true);
  _stride = cfg.findInt(params.nsect, "stride", _size, true);
  _pad = cfg.findInt(params.nsect, "pad", (_size - 1) / 2, true);
  _centred = type == LAYER_CMAXPOOL || cfg.findInt(params.nsect, "centred", 0, true) != 0;
  if (_centred) type = LAYER_CMAXPOOL;
  Layer::parseConfig(cfg, params);
  _check(false);
  _makeLayer(params.quant, params.fast);
}

int MaxpoolLayer::loadConfig(FILE* fp, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  _centred = type == LAYER_CMAXPOOL;
  int record[3];
  chk_fread(record, 4, 3, fp);
  _size = record[0];
  _stride = record[1];
  _pad = record[2];
  Layer::loadConfig(fp, params);
  _check(true);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int MaxpoolLayer::saveConfig(FILE* fp) {
  const int record[3] = {_size, _stride, _pad};
  chk_fwrite(record, 4, 3, fp);
  return Layer::saveConfig(fp);
}

void MaxpoolLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _check(false);
  _makeLayer(params.quant, params.fast);
}

void MaxpoolLayer::_freeLayer() { layer_release(_gpu_handle, _indexes); }

void MaxpoolLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _out_w = _centred ? pool_out_side_centred(_in_w, _size, _pad, _stride) : pool_out_side(_in_w, _pad, _stride);
  _out_h = _centred ? pool_out_side_centred(_in_h, _size, _pad, _stride) : pool_out_side(_in_h, _pad, _stride);
  _out_c = _in_c;
  _inputs = _in_w * _in_h * _in_c;
  _outputs = _out_w * _out_h * _out_c;
  layer_make_output(this);
  // Only a backward pass reads the winners' places; inference writes the maxima alone.
  if (mode) _indexes = static_cast<int*>(cuda_malloc(_gpu_handle, (size_t)_batch * _outputs * sizeof(int)));
  _flops = (size_t)_size * _size * _out_w * _out_h * _out_c;
  ORVA_MSG(INFO, "maxp         %dx%d / %d    %4d x%4d x%4d   ->  %4d x%4d x%4d  %6.1fM\n", _size, _size, _stride, _in_w,
           _in_h, _in_c, _out_w, _out_h, _out_c, _flops * 0.000001);
}

void MaxpoolLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  if (_centred)
    pool_max_forward_centred(_gpu_handle, b, _in_h, _in_w, _in_c, _size, _stride, _pad, params.input, _output,
                             _indexes);
  else
    pool_max_forward(_gpu_handle, b, _in_h, _in_w, _in_c, _size, _stride, _pad, params.input, _output, _indexes);
}

void MaxpoolLayer::backward(NetworkParams& params) {
  if (!_delta || !params.delta || !_indexes) return;
  if (_centred)
    pool_max_backward_centred(_gpu_handle, _batch, _in_h, _in_w, _in_c, _size, _stride, _pad, _delta, _indexes,
                              params.delta);
  else
    pool_max_backward(_gpu_handle, _batch, _in_h, _in_w, _in_c, _size, _stride, _pad, _delta, _indexes,
                      params.delta);
}

}  // namespace ORVA
