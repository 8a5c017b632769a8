#include "layer/route_layer.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/orva.h"

namespace ORVA {

namespace {
constexpr int kMaxSources = 256;
}

RouteLayer::~RouteLayer() {
  free(_lindex);
  free(_lsize);
}

// Output shape from the sources' current shapes. The sources must be made layers before
// this one; a model file's stored sizes must agree with them.
void RouteLayer::_shape(bool from_file, bool check_dims, int own_index) {
  _out_c = 0;
  for (int i = 0; i < _ln; ++i) {
    Layer* src = _net && _lindex[i] >= 0 && _lindex[i] < own_index ? _net->getLayer(_lindex[i]) : nullptr;
    if (!src) LAYER_FAULT(from_file, "Not exist layer indexes");
    if (from_file && _lsize[i] != src->_outputs)
      LAYER_FAULT(true, "route: stored size %d of layer %d differs from its outputs %d", _lsize[i], _lindex[i],
                  src->_outputs);
    _lsize[i] = src->_outputs;
    if (i == 0) {
      _out_w = src->_out_w;
      _out_h = src->_out_h;
    } else if ((check_dims || from_file) && (src->_out_w != _out_w || src->_out_h != _out_h)) {
      LAYER_FAULT(from_file, "Not match input layer dimentions");
    }
    _out_c += src->_out_c;
  }
  if (!layer_size_ok(_batch, (long long)_out_w * _out_h * _out_c))
    LAYER_FAULT(from_file, "route: output %d x %d x %d, batch %d out of range", _out_w, _out_h, _out_c, _batch);
}

void RouteLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _batch = params.batch;
  _net = params.net;
  const char* layers = cfg.findStr(params.nsect, "layers", nullptr, true);
  if (!layers) ORVA_FATAL("Route Layer must specify input layers");
  _ln = 1;
  for (const char* p = layers; *p; ++p) _ln += *p == ',';
  if (_ln > kMaxSources) ORVA_FATAL("route: %d layers, at most %d", _ln, kMaxSources);
  _lindex = static_cast<int*>(calloc(_ln, sizeof(int)));
  _lsize = static_cast<int*>(calloc(_ln, sizeof(int)));
  const char* p = layers;
  for (int i = 0; i < _ln; ++i) {
    int index = (int)strtol(p, nullptr, 10);
    if (index < 0) index += params.index;
    _lindex[i] = index;
    const char* comma = strchr(p, ',');
    p = comma ? comma + 1 : p + strlen(p);
  }
  _shape(false, true, params.index);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int RouteLayer::loadConfig(FILE* fp, InputParams& params) {
  _batch = params.batch;
  _net = params.net;
  chk_fread(&_ln, 4, 1, fp);
  if (_ln < 1 || _ln > kMaxSources) LAYER_FAULT(true, "route: %d layers, expected 1..%d", _ln, kMaxSources);
  free(_lindex);
  free(_lsize);
  _lindex = static_cast<int*>(calloc(_ln, sizeof(int)));
  _lsize = static_cast<int*>(calloc(_ln, sizeof(int)));
  chk_fread(_lindex, 4, _ln, fp);
  chk_fread(_lsize, 4, _ln, fp);
  Layer::loadConfig(fp, params);
  _shape(true, false, params.index);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int RouteLayer::saveConfig(FILE* fp) {
  chk_fwrite(&_ln, 4, 1, fp);
  chk_fwrite(_lindex, 4, _ln, fp);
  chk_fwrite(_lsize, 4, _ln, fp);
  return Layer::saveConfig(fp);
}

void RouteLayer::resize(InputParams& params) {
  _shape(false, true, params.index > 0 ? params.index : 1 << 30);
  _makeLayer(params.quant, params.fast);
}

void RouteLayer::_freeLayer() {}

void RouteLayer::_makeLayer(bool quant, bool fast) {
  _inputs = _outputs = _out_h * _out_w * _out_c;
  layer_make_output(this);
  if (_msg_level <= INFO) {
    std::string line = "route ";
    for (int i = 0; i < _ln; ++i) line += " " + std::to_string(_lindex[i]);
    fprintf(stderr, "%s\n", line.c_str());
  }
}

void RouteLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  int offset = 0;
  for (int i = 0; i < _ln; ++i) {
    Ftype* src = _net->getLayer(_lindex[i])->_output;
    for (int j = 0; j < b; ++j)
      blas_copy(_gpu_handle, _lsize[i], src + (size_t)j * _lsize[i], _output + (size_t)j * _outputs + offset);
    offset += _lsize[i];
  }
}

void RouteLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  int offset = 0;
  for (int i = 0; i < _ln; ++i) {
    Ftype* dst = _net->getLayer(_lindex[i])->_delta;
    if (dst)
      for (int j = 0; j < _batch; ++j)
        blas_axpy(_gpu_handle, _lsize[i], 1, _delta + (size_t)j * _outputs + offset, dst + (size_t)j * _lsize[i]);
    offset += _lsize[i];
  }
}

}  // namespace ORVA
