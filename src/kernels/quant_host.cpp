// Host twins of the quantisation kernels, value for value.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_reduce.h>

#include <cmath>

#if defined(__F16C__)
#include <immintrin.h>
#endif

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

// dst[i] = to_steps(h2f(src[i]) * scale, lo, hi) as bytes (signed or not by the range), eight
// at a time where the processor converts halves: the same float product, NaN to 0, the clamp
// (to whole numbers, so clamping before rounding changes nothing) and the rounding of the
// current mode, which rintf also uses.
template <typename Byte>
void to_bytes(const Ftype* src, size_t n, float scale, float lo, float hi, Byte* dst) {
  size_t i = 0;
#if defined(__F16C__)
  const __m256 s = _mm256_set1_ps(scale), vlo = _mm256_set1_ps(lo), vhi = _mm256_set1_ps(hi);
  for (; i + 8 <= n; i += 8) {
    __m256 v = _mm256_mul_ps(_mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i))), s);
    v = _mm256_and_ps(v, _mm256_cmp_ps(v, v, _CMP_ORD_Q));
    const __m256i q = _mm256_cvtps_epi32(_mm256_min_ps(_mm256_max_ps(v, vlo), vhi));
    const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(q), _mm256_extractf128_si256(q, 1));
    const __m128i bytes = lo < 0.f ? _mm_packs_epi16(words, words) : _mm_packus_epi16(words, words);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + i), bytes);
  }
#endif
  for (; i < n; ++i) dst[i] = (Byte)to_steps(h2f(src[i]) * scale, lo, hi);
}

struct Extremes {
  float max_abs = 0.f;
  float min_value = 0.f;
};

}  // namespace

void quant_int8(void*, const Ftype* src, int n, float scale, signed char* dst) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)n, kGrain), [&](const tbb::blocked_range<size_t>& r) {
    to_bytes(src + r.begin(), r.size(), scale, -127.f, 127.f, dst + r.begin());
  });
}

void quant_uint8(void*, const Ftype* src, int n, float scale, unsigned char* dst) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)n, kGrain), [&](const tbb::blocked_range<size_t>& r) {
    to_bytes(src + r.begin(), r.size(), scale, 0.f, 254.f, dst + r.begin());
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
