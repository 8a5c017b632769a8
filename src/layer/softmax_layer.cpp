#include "layer/softmax_layer.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "layer/layer_util.h"
#include "orva/blas.h"

namespace ORVA {

SoftmaxLayer::~SoftmaxLayer() {
  SoftmaxLayer::_freeLayer();
  free(_gmap_cpu);
}

void SoftmaxLayer::_check(bool from_file) const {
  if (!layer_size_ok(_batch, _inputs))
    LAYER_FAULT(from_file, "softmax: inputs %d, batch %d out of range", _inputs, _batch);
  if (!std::isfinite(_temperature) || _temperature == 0.f)
    LAYER_FAULT(from_file, "softmax: temperature %g must be finite and non-zero", _temperature);
  if (_groups < 1 || _groups > _inputs)
    LAYER_FAULT(from_file, "softmax: groups %d out of range 1..%d (inputs)", _groups, _inputs);
  if (!_gmap_cpu) {
    if (_inputs % _groups)
      LAYER_FAULT(from_file, "softmax: groups %d do not divide inputs %d", _groups, _inputs);
    return;
  }
  long long total = 0;
  for (int g = 0; g < _groups; ++g) {
    if (_gmap_cpu[g] < 1) LAYER_FAULT(from_file, "softmax: map entry %d is %d, must be positive", g, _gmap_cpu[g]);
    total += _gmap_cpu[g];
  }
  if (total != _inputs) LAYER_FAULT(from_file, "Total map elements must equal to inputs.");
}

void SoftmaxLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _inputs = params.inputs;
  _batch = params.batch;
  const int ns = params.nsect;
  _groups = cfg.findInt(ns, "groups", 1, true);
  _temperature = cfg.findFloat(ns, "temperature", 1.f, true);
  const char* map = cfg.findStr(ns, "map", nullptr, true);
  free(_gmap_cpu);
  _gmap_cpu = nullptr;
  if (map) {
    int count = 1;
    for (const char* p = map; *p; ++p) count += *p == ',';
    if (!*map) count = 1;
    if (count != _groups) ORVA_FATAL("Map list must equal to groups.");
    if (_groups < 1 || _groups > (1 << 20)) ORVA_FATAL("softmax: groups %d out of range", _groups);
    _gmap_cpu = static_cast<int*>(calloc(_groups, sizeof(int)));
    const char* p = map;
    for (int g = 0; g < _groups; ++g) {
      _gmap_cpu[g] = (int)strtol(p, nullptr, 10);
      const char* comma = strchr(p, ',');
      p = comma ? comma + 1 : p + strlen(p);
    }
  } else {
    // A description always gets a map: one group over every value.
    _groups = 1;
    _gmap_cpu = static_cast<int*>(calloc(1, sizeof(int)));
    _gmap_cpu[0] = _inputs;
  }
  Layer::parseConfig(cfg, params);
  _check(false);
  _makeLayer(params.quant, params.fast);
}

int SoftmaxLayer::loadConfig(FILE* fp, InputParams& params) {
  _inputs = params.inputs;
  _batch = params.batch;
  int count = 0;
  chk_fread(&count, 4, 1, fp);
  chk_fread(&_temperature, 4, 1, fp);
  if (count == 0 || count < -(1 << 20) || count > (1 << 20)) LAYER_FAULT(true, "softmax: group count %d", count);
  _groups = count < 0 ? -count : count;
  free(_gmap_cpu);
  _gmap_cpu = nullptr;
  if (count < 0) {
    _gmap_cpu = static_cast<int*>(calloc(_groups, sizeof(int)));
    chk_fread(_gmap_cpu, 4, _groups, fp);
  }
  Layer::loadConfig(fp, params);
  _check(true);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int SoftmaxLayer::saveConfig(FILE* fp) {
  const int count = _gmap ? -_groups : _groups;
  chk_fwrite(&count, 4, 1, fp);
  chk_fwrite(&_temperature, 4, 1, fp);
  if (_gmap) chk_fwrite(_gmap_cpu, 4, _groups, fp);
  return Layer::saveConfig(fp);
}

void SoftmaxLayer::resize(InputParams& params) {
  if (_gmap) ORVA_FATAL("Softmax layer with map can not be resized.");
  _inputs = params.inputs;
  _check(false);
  _makeLayer(params.quant, params.fast);
}

void SoftmaxLayer::_freeLayer() { layer_release(_gpu_handle, _gmap); }

void SoftmaxLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _out_h = _out_w = 1;
  _out_c = _outputs = _inputs;
  if (_gmap_cpu) {
    _gmap = static_cast<int*>(cuda_malloc(_gpu_handle, (size_t)_groups * sizeof(int)));
    cuda_push(_gpu_handle, _gmap, _gmap_cpu, (size_t)_groups * sizeof(int));
  }
  layer_make_output(this);
  ORVA_MSG(INFO, "softmax %3d                         %4d   ->  %4d\n", _groups, _inputs, _outputs);
}

void SoftmaxLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  if (_gmap)
    blas_softmax(_gpu_handle, params.input, b, _inputs, _groups, _gmap, _temperature, _output);
  else
    blas_softmax(_gpu_handle, params.input, _inputs / _groups, b, _inputs, _groups, _inputs / _groups, 1, _temperature,
                 _output);
}

void SoftmaxLayer::backward(NetworkParams& params) {
  if (_delta && params.delta) blas_axpy(_gpu_handle, _batch * _outputs, 1, _delta, params.delta);
}

}  // namespace ORVA
