#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <vector>

#include "orva/networks.h"

namespace ORVA {

float* ClassifyNetwork::classify(ClassIdList* lists, cv::Mat* frames, float thresh, int topk, int n) {
  if (n <= 0) return nullptr;
  float* out = predict(frames, n);
  _classify(out, lists, thresh, topk, std::min(n, nBatch));
  return out;
}

float* ClassifyNetwork::classify(ClassIdList* lists, cv::Mat& frames, float thresh, int topk, int n) {
  if (n <= 0) return nullptr;
  float* out = predict(frames, n, 1);
  _classify(out, lists, thresh, topk, std::min(n, nBatch));
  return out;
}

void ClassifyNetwork::_classify(const float* output, ClassIdList* lists, float thresh, int topk, int n) {
  const int classes = getOutputs();
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int k = r.begin(); k < r.end(); ++k) {
      const float* score = output + (size_t)k * classes;
      ClassIdList& list = lists[k];
      list.clear();
      if (topk <= 1) {
        ClassId best{0, 0.f};
        for (int i = 0; i < classes; ++i)
          if (score[i] > best.prob) best = ClassId{i, score[i]};
        // Inclusive on purpose: a threshold of 0 always yields one class.
        if (thresh <= best.prob) list.push_back(best);
        continue;
      }
      std::vector<ClassId> all(classes);
      for (int i = 0; i < classes; ++i) all[i] = ClassId{i, score[i]};
      const int take = std::min(topk, classes);
      std::partial_sort(all.begin(), all.begin() + take, all.end(),
                        [](const ClassId& a, const ClassId& b) { return a.prob > b.prob; });
      for (int i = 0; i < take; ++i)
        if (all[i].prob >= thresh) list.push_back(all[i]);
    }
  });
}

}  // namespace ORVA
