#include "layer/avgpool_layer.h"

#include "layer/layer_util.h"
#include "orva/orva.h"
#include "kernels/pool.h"

namespace ORVA {

AvgpoolLayer::~AvgpoolLayer() { AvgpoolLayer::_freeLayer(); }

void AvgpoolLayer::_check(bool from_file) const {
  if (_in_h < 1 || _in_w < 1 || _in_c < 1) LAYER_FAULT(from_file, "Layer before avgpool layer must output image.");
  if (!global()) {
    check_pool_window(from_file, "avgpool", _in_w, _in_h, _in_c, _batch, _size, _stride, _pad);
    return;
  }
  const long long plane = (long long)_in_w * _in_h;
  if (!layer_size_ok(_batch, plane * _in_c))
    LAYER_FAULT(from_file, "avgpool: input %d x %d x %d, batch %d too large", _in_w, _in_h, _in_c, _batch);
  if (_tmin < 0 || _tmax < 0 || _tmin + (long long)_tmax >= plane)
    LAYER_FAULT(from_file, "avgpool: tmin %d and tmax %d leave nothing of a %d x %d plane", _tmin, _tmax, _in_w, _in_h);
  if (_square != 0 && _square != 1) LAYER_FAULT(from_file, "avgpool: square %d must be 0 or 1", _square);
}

void AvgpoolLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  if (!_in_h || !_in_w || !_in_c) ORVA_FATAL("Layer before avgpool layer must output image.");
  const int ns = params.nsect;
  _size = cfg.findInt(ns, "size", 0, true);
  _stride = cfg.findInt(ns, "stride", _size, true);
  _pad = cfg.findInt(ns, "pad", (_size - 1) / 2, true);
  _tmin = cfg.findInt(ns, "tmin", 0, true);
  _tmax = cfg.findInt(ns, "tmax", 0, true);
  _square = cfg.findInt(ns, "square", 0, true);
  Layer::parseConfig(cfg, params);
  _check(false);
  _makeLayer(params.quant, params.fast);
}

int AvgpoolLayer::loadConfig(FILE* fp, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  int record[6] = {0, 0, 0, 0, 0, 0};
  // Trimming and squares arrived after format 3.0.
  const bool full = !params.net || params.net->version > 0x30000;
  chk_fread(record, 4, full ? 6 : 3, fp);
  _size = record[0];
  _stride = record[1];
  _pad = record[2];
  _tmin = record[3];
  _tmax = record[4];
  _square = record[5];
  Layer::loadConfig(fp, params);
  _check(true);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int AvgpoolLayer::saveConfig(FILE* fp) {
  const int record[6] = {_size, _stride, _pad, _tmin, _tmax, _square};
  chk_fwrite(record, 4, 6, fp);
  return Layer::saveConfig(fp);
}

void AvgpoolLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _check(false);
  _makeLayer(params.quant, params.fast);
}

void AvgpoolLayer::_freeLayer() { layer_release(_gpu_handle, _indexes); }

void AvgpoolLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _out_c = _in_c;
  if (global()) {
    _out_w = _out_h = 1;
  } else {
    _out_w = pool_out_side(_in_w, _pad, _stride);
    _out_h = pool_out_side(_in_h, _pad, _stride);
  }
  _inputs = _in_w * _in_h * _in_c;
  _outputs = _out_w * _out_h * _out_c;
  layer_make_output(this);
  if (global() && (_tmin || _tmax))
    _indexes = static_cast<int*>(cuda_malloc(_gpu_handle, (size_t)_batch * _inputs * sizeof(int)));
  if (global()) {
    _flops = (size_t)_in_w * _in_h * _out_c;
    ORVA_MSG(INFO, "gavg         %d-%d / %d    %4d x%4d x%4d   ->  %4d x%4d x%4d  %6.1fM\n", _tmin, _tmax, _square + 1,
             _in_w, _in_h, _in_c, _out_w, _out_h, _out_c, _flops * 0.000001);
  } else {
    _flops = (size_t)_size * _size * _out_w * _out_h * _out_c;
    ORVA_MSG(INFO, "avgp         %dx%d / %d    %4d x%4d x%4d   ->  %4d x%4d x%4d  %6.1fM\n", _size, _size, _stride,
             _in_w, _in_h, _in_c, _out_w, _out_h, _out_c, _flops * 0.000001);
  }
}

void AvgpoolLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  if (global())
    pool_global_forward(_gpu_handle, b, _in_h, _in_w, _in_c, _square, _tmin, _tmax, params.input, _indexes, _output);
  else
    pool_avg_forward(_gpu_handle, b, _in_h, _in_w, _in_c, _size, _stride, _pad, params.input, _output);
}

void AvgpoolLayer::backward(NetworkParams& params) {
  if (!_delta || !params.delta) return;
  if (global())
    pool_global_backward(_gpu_handle, _batch, _in_h, _in_w, _in_c, _square, _tmin, _tmax, params.input, _indexes,
                         _delta, params.delta);
  else
    pool_avg_backward(_gpu_handle, _batch, _in_h, _in_w, _in_c, _size, _stride, _pad, _delta, params.delta);
}

}  // namespace ORVA
