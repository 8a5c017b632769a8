// Host twins of the loss kernels: every half step in float, rounded to nearest even, in the
// order the device kernels take them.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cmath>

#include "kernels/cost_kernel.h"
#include "kernels/half_math.h"

namespace cpu {

namespace {

template <typename Body>
void for_each_index(int n, Body body) {
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 4096), [&](const tbb::blocked_range<int>& r) {
    for (int i = r.begin(); i != r.end(); ++i) body(i);
  });
}

const _half kOne = f2h(1.f), kMinusOne = f2h(-1.f), kZero = f2h(0.f);

inline float diff(const float* truth, const Ftype* input, int i) { return h2f(f2h(h2f(f2h(truth[i])) - h2f(input[i]))); }

}  // namespace

void l2(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh) {
  const float t = h2f(thresh);
  for_each_index(n, [&](int i) {
    const float d = diff(truth, input, i);
    const _half e = f2h(d * d);
    error[i] = e;
    delta[i] = h2f(e) > t ? f2h(d) : kZero;
  });
}

void l1(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh) {
  const float t = h2f(thresh);
  for_each_index(n, [&](int i) {
    const float d = diff(truth, input, i), a = std::fabs(d);
    error[i] = f2h(a);
    delta[i] = a > t ? (d > 0.f ? kOne : kMinusOne) : kZero;
  });
}

void l1smooth(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh) {
  const float t = h2f(thresh);
  for_each_index(n, [&](int i) {
    const float d = diff(truth, input, i), a = std::fabs(d);
    if (a < 1.f) {
      const _half e = f2h(d * d);
      error[i] = e;
      delta[i] = h2f(e) > t ? f2h(d) : kZero;
    } else {
      // 2a - 1 as the device does it: one half multiply, one half add.
      const _half e = f2h(h2f(f2h(2.f * a)) - 1.f);
      error[i] = e;
      delta[i] = h2f(e) > t ? (d > 0.f ? kOne : kMinusOne) : kZero;
    }
  });
}

void xentropy(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, float eps,
              float gamma, float pscale, float nscale) {
  for_each_index(n, [&](int i) {
    const float y = truth[i];
    float p = h2f(input[i]);
    p = std::fmin(std::fmax(p, eps), 1.f - eps);
    const float q = 1.f - p;
    const float fp = std::pow(q, gamma), fn = std::pow(p, gamma);
    const float e = -(pscale * y * fp * std::log(p) + nscale * (1.f - y) * fn * std::log(q));
    const float g = pscale * y * fp * q - nscale * (1.f - y) * fn * p;
    error[i] = f2h(e);
    delta[i] = f2h(g);
  });
}

}  // namespace cpu
