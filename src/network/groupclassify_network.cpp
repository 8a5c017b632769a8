#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <limits>

#include "layer/softmax_layer.h"
#include "orva/networks.h"
#include "orva/util.h"

namespace ORVA {

int GroupClassifyNetwork::load(const char* path_cfg, const char* path_weight, bool quant, bool fast) {
  const int r = Network::load(path_cfg, path_weight, quant, fast);
  if (r == 0) _takeGroups();
  return r;
}

int GroupClassifyNetwork::load(const char* path_net, bool quant, bool fast) {
  const int r = Network::load(path_net, quant, fast);
  if (r == 0) _takeGroups();
  return r;
}

void GroupClassifyNetwork::_takeGroups() {
  Layer* top = getOutputLayer();
  if (!top || top->type != LAYER_SOFTMAX) ORVA_FATAL("top layer is not LayerType::Softmax");
  auto* softmax = static_cast<SoftmaxLayer*>(top);
  _groups = softmax->_groups;
  _gmap = softmax->_gmap_cpu;
  if (!_gmap && _groups > 0) {
    _equal_map.assign(_groups, getOutputs() / _groups);
    _gmap = _equal_map.data();
  }
}

float* GroupClassifyNetwork::classify(ClassIdList* lists, cv::Mat* frames, int n) {
  if (n <= 0) return nullptr;
  return _choose(predict(frames, n), lists, nullptr, 1.f, n);
}

float* GroupClassifyNetwork::classify(ClassIdList* lists, cv::Mat& frames, int n) {
  if (n <= 0) return nullptr;
  return _choose(predict(frames, n, 1), lists, nullptr, 1.f, n);
}

float* GroupClassifyNetwork::classify(ClassIdList* lists, cv::Mat* frames, float* history, float alpha, int n) {
  if (n <= 0) return nullptr;
  return _choose(predict(frames, n), lists, history, alpha, n);
}

float* GroupClassifyNetwork::classify(ClassIdList* lists, cv::Mat& frames, float* history, float alpha, int n) {
  if (n <= 0) return nullptr;
  return _choose(predict(frames, n, 1), lists, history, alpha, n);
}

float* GroupClassifyNetwork::_choose(float* output, ClassIdList* lists, float* history, float alpha, int n) {
  n = std::min(n, nBatch);
  const int outputs = getOutputs();
  const float* scores = output;
  if (history) {
    const size_t count = (size_t)n * outputs;
    tbb::parallel_for(tbb::blocked_range<size_t>(0, count, 4096), [&](const tbb::blocked_range<size_t>& r) {
      for (size_t i = r.begin(); i < r.end(); ++i) history[i] = (1 - alpha) * history[i] + alpha * output[i];
    });
    scores = history;
  }
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int k = r.begin(); k < r.end(); ++k) {
      const float* s = scores + (size_t)k * outputs;
      ClassIdList& list = lists[k];
      list.resize(_groups);
      for (int g = 0; g < _groups; ++g) {
        // An empty group, or one of NaNs only, reports index 0 with -infinity.
        ClassId best{0, -std::numeric_limits<float>::infinity()};
        for (int i = 0; i < _gmap[g]; ++i)
          if (s[i] > best.prob) best = ClassId{i, s[i]};
        list[g] = best;
        s += _gmap[g];
      }
    }
  });
  return output;
}

}  // namespace ORVA
