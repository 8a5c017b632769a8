#include "layer/detection_head.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/cuda.h"
#include "orva/util.h"

namespace ORVA {

DetectionHead::~DetectionHead() { DetectionHead::_freeLayer(); }

void DetectionHead::_freeLayer() {
  free(_output_cpu);
  free(_delta_cpu);
  free(_delta_stage);
  _output_cpu = _delta_cpu = nullptr;
  _delta_stage = nullptr;
}

bool DetectionHead::_takeInput(const InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  return _in_w && _in_h && _in_c;
}

void DetectionHead::_readLossScales(ConfigReader& cfg, int ns) {
  _obj_scale = cfg.findFloat(ns, "object_scale", 1, true);
  _noobj_scale = cfg.findFloat(ns, "noobject_scale", 1, true);
  _class_scale = cfg.findFloat(ns, "class_scale", 1, true);
}

void DetectionHead::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _makeLayer(params.quant, params.fast);
}

void DetectionHead::_makeHead(long long out_c, int truth_size, const char* kind) {
  _out_w = _in_w;
  _out_h = _in_h;
  if (out_c != _in_c) ORVA_FATAL("Layer input & output are mismatched.");
  _out_c = (int)out_c;
  _outputs = _in_w * _in_h * _out_c;
  _inputs = _in_w * _in_h * _in_c;
  _truths = truth_size * kMaxTruths;
  layer_make_output(this);
  if (mode) {
    const size_t total = (size_t)_batch * _outputs;
    _output_cpu = static_cast<float*>(calloc(total, sizeof(float)));
    _delta_cpu = static_cast<float*>(calloc(total, sizeof(float)));
    _delta_stage = static_cast<Ftype*>(calloc(total, sizeof(Ftype)));
  }
  ORVA_MSG(INFO, "%s\n", kind);
}

void DetectionHead::_pullOutput(int batch) {
  const size_t total = (size_t)batch * _outputs;
  cuda_pull(_gpu_handle, _output_cpu, _output, total * sizeof(Ftype));
  cuda_sync(_gpu_handle);
  // In place from the back: each float is wider than the half it comes from.
  half2float_cpu(_output_cpu, reinterpret_cast<const _half*>(_output_cpu), total);
  memset(_delta_cpu, 0, (size_t)_batch * _outputs * sizeof(float));
}

void DetectionHead::_publishLoss() { cost = layer_publish_gradient(this, _delta_cpu, _delta_stage); }

void DetectionHead::backward(NetworkParams& params) {
  if (!_delta) return;
  _activateGradient();
  if (params.delta) blas_axpy(_gpu_handle, _batch * _outputs, 1.f, _delta, params.delta);
}

int DetectionHead::truthCount(const float* truth, int rec) {
  int n = 0;
  while (n < kMaxTruths && truth[(size_t)n * rec] != 0) ++n;
  return n;
}

void DetectionHead::bestClass(const float* obj, const float* score, int classes, int wh, float* prob, int* cls) {
  std::fill(cls, cls + wh, 0);
  if (classes == 0) {
    std::copy(obj, obj + wh, prob);
    return;
  }
  std::fill(prob, prob + wh, 0.f);
  for (int k = 0; k < classes; ++k) {
    const float* s = score + (size_t)k * wh;
    for (int loc = 0; loc < wh; ++loc) {
      const bool better = s[loc] > prob[loc];
      prob[loc] = better ? s[loc] : prob[loc];
      cls[loc] = better ? k : cls[loc];
    }
  }
  for (int loc = 0; loc < wh; ++loc) prob[loc] *= obj[loc];
}

}  // namespace ORVA
