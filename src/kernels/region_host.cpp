// Host twins of the detection-head operations: each half step in float, rounded to nearest
// even, as the CUDA kernels do.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cmath>

#include "kernels/half_math.h"
#include "kernels/region_kernel.h"

namespace cpu {
namespace region {
namespace {

inline float logistic_exp(float t) {
  if (t < -105.f) return 0.f;
  if (t > 105.f) return INFINITY;
  return exp2f(t * 1.442695f);
}

// Calls f(offset of value 0, n) for every run, runs spread over the threads.
template <typename F>
void for_each_run(int batch, int batch_offset, int groups, int group_offset, int n, F f) {
  const int runs = batch * groups;
  const int grain = n >= 256 ? 1 : 256 / n + 1;
  tbb::parallel_for(tbb::blocked_range<int>(0, runs, grain), [&](const tbb::blocked_range<int>& r) {
    for (int i = r.begin(); i < r.end(); ++i) f((size_t)(i / groups) * batch_offset + (size_t)(i % groups) * group_offset, n);
  });
}

}  // namespace

void logistic(void* handle, Ftype* x, int batch, int batch_offset, int groups, int group_offset, int n, float scale,
              float shift) {
  for_each_run(batch, batch_offset, groups, group_offset, n, [&](size_t o, int len) {
    for (int k = 0; k < len; ++k) {
      float y = h2f(f2h(1.f / (1.f + logistic_exp(-h2f(x[o + k])))));
      if (scale > 1.f) y = y * scale + shift;
      x[o + k] = f2h(y);
    }
  });
}

void logistic_gradient(void* handle, const Ftype* y, Ftype* delta, int batch, int batch_offset, int groups,
                       int group_offset, int n) {
  const _half one = f2h(1.f);
  for_each_run(batch, batch_offset, groups, group_offset, n, [&](size_t o, int len) {
    for (int k = 0; k < len; ++k) {
      const _half g = hmul(f2h(h2f(one) - h2f(y[o + k])), y[o + k]);
      delta[o + k] = hmul(delta[o + k], g);
    }
  });
}

}  // namespace region
}  // namespace cpu
