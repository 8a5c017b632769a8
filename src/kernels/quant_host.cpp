// Host twins of the quantisation kernels, value for value.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_reduce.h>

#include <cmath>

#include "kernels/half_math.h"
#include "kernels/quant_kernel.h"

namespace cpu {

namespace {

constexpr size_t kGrain = 16384;

// v in steps: nearest integer (ties to even, the rounding mode in force), clamped; NaN is 0.
inline float to_steps(float v, float lo, float hi) {
  if (v != v) return 0.f;
  v = rintf(v);
  return v < lo ? lo : (v > hi ? hi : v);
}


struct Extremes {
  float max_abs = 0.f;
  float min_value = 0.f;
};

}  // namespace

void quant_int8(void*, const Ftype* src, int n, float scale, signed char* dst) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)n, kGrain), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t i = r.begin(); i != r.end(); ++i) dst[i] = (signed char)to_steps(h2f(src[i]) * scale, -127.f, 127.f);
  });
}

void quant_uint8(void*, const Ftype* src, int n, float scale, unsigned char* dst) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)n, kGrain), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t i = r.begin(); i != r.end(); ++i) dst[i] = (unsigned char)to_steps(h2f(src[i]) * scale, 0.f, 254.f);
  });
}

void quant_float(void*, const unsigned char* src, bool is_unsigned, int n, float step, Ftype* dst) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)n, kGrain), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t i = r.begin(); i != r.end(); ++i) {
      const float q = is_unsigned ? (float)src[i] : (float)(signed char)src[i];
      dst[i] = f2h(q * step);
    }
  });
}

void quant_thresh(void*, const Ftype* src, int n, float* max_abs, float* min_value) {
  const Extremes e = tbb::parallel_reduce(
      tbb::blocked_range<size_t>(0, (size_t)n, kGrain), Extremes{},
      [&](const tbb::blocked_range<size_t>& r, Extremes acc) {
        for (size_t i = r.begin(); i != r.end(); ++i) {
          const float x = h2f(src[i]);
          // Comparisons with NaN are false, so NaN never becomes the threshold.
          if (fabsf(x) > acc.max_abs) acc.max_abs = fabsf(x);
          if (x < acc.min_value) acc.min_value = x;
        }
        return acc;
      },
      [](Extremes a, const Extremes& b) {
        if (b.max_abs > a.max_abs) a.max_abs = b.max_abs;
        if (b.min_value < a.min_value) a.min_value = b.min_value;
        return a;
      });
  *max_abs = e.max_abs;
  *min_value = e.min_value;
}

double get_qerror(void*, const Ftype* src, int n, float scale, float step) {
  return tbb::parallel_reduce(
      tbb::blocked_range<size_t>(0, (size_t)n, kGrain), 0.0,
      [&](const tbb::blocked_range<size_t>& r, double acc) {
        for (size_t i = r.begin(); i != r.end(); ++i) {
          const float x = h2f(src[i]);
          acc += fabsf(x - to_steps(x * scale, -127.f, 127.f) * step);
        }
        return acc;
      },
      [](double a, double b) { return a + b; });
}

}  // namespace cpu
