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
constexpr int kMaxGroups = 1024;
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
    if (src->_out_c % _groups)
      LAYER_FAULT(from_file, "route: groups %d do not divide the %d channels of layer %d", _groups, src->_out_c,
                  _lindex[i]);
    if (i == 0) {
      _out_w = src->_out_w;
      _out_h = src->_out_h;
    } else if ((check_dims || from_file) && (src->_out_w != _out_w || src->_out_h != _out_h)) {
      LAYER_FAULT(from_file, "Not match input layer dimentions");
    }
    _out_c += src->_out_c / _groups;
  }
  if (!layer_size_ok(_batch, (long long)_out_w * _out_h * _out_c))
    LAYER_FAULT(from_file, "route: output %d x %d x %d, batch %d out of range", _out_w, _out_h, _out_c, _batch);
}

void RouteLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _batch = params.batch;
  _net = params.net;
  const char* layers = cfg.findStr(params.nsect, "layers", nullptr, true);
  if (!layers) ORVA_FATAL("Route Layer must specify input layers");
  _groups = cfg.findInt(params.nsect, "groups", 1, true);
  _group_id = cfg.findInt(params.nsect, "group_id", 0, true);
  if (_groups < 1 || _groups > kMaxGroups || _group_id < 0 || _group_id >= _groups)
    ORVA_FATAL("route: groups %d, group_id %d: need 1 <= groups <= %d and 0 <= group_id < groups", _groups, _group_id,
               kMaxGroups);
  if (_groups > 1) type = LAYER_GROUTE;
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
  if (type == LAYER_GROUTE) {
    int g[2];
    chk_fread(g, 4, 2, fp);
    _groups = g[0];
    _group_id = g[1];
    if (_groups < 1 || _groups > kMaxGroups || _group_id < 0 || _group_id >= _groups)
      LAYER_FAULT(true, "route: groups %d, group_id %d out of range", _groups, _group_id);
  }
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
  if (type == LAYER_GROUTE) {
    const int g[2] = {_groups, _group_id};
    chk_fwrite(g, 4, 2, fp);
  }
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
    // A group is a run of whole channel planes, so each item's slice is contiguous.
    const int part = _lsize[i] / _groups;
    Ftype* src = _net->getLayer(_lindex[i])->_output + (size_t)_group_id * part;
    for (int j = 0; j < b; ++j)
      blas_copy(_gpu_handle, part, src + (size_t)j * _lsize[i], _output + (size_t)j * _outputs + offset);
    offset += part;
  }
}

void RouteLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  int offset = 0;
  for (int i = 0; i < _ln; ++i) {
    const int part = _lsize[i] / _groups;
    Ftype* dst = _net->getLayer(_lindex[i])->_delta;
    if (dst)
      for (int j = 0; j < _batch; ++j)
        blas_axpy(_gpu_handle, part, 1, _delta + (size_t)j * _outputs + offset,
                  dst + (size_t)j * _lsize[i] + (size_t)_group_id * part);
    offset += part;
  }
}

}  // namespace ORVA
