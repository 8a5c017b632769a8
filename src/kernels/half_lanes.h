// Eight halves at a time, widened to float: the streaming host twins compute on Lanes and
// round back once per half step, as their scalar loops do value by value. Three builds of
// the same operations: F16C with AVX on x86-64, NEON on 64-bit Arm (both convert eight halves
// in one or two instructions), and plain arrays elsewhere, which the compiler may vectorise.
// All three give the scalar loops' results bit for bit: each operation is one IEEE float
// operation, conversions round to nearest even, and NaN compares false.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>

#include "kernels/half_math.h"

#if defined(__F16C__)
#include <immintrin.h>
#define ORVA_LANES_F16C 1
#elif defined(__aarch64__) && defined(__ARM_NEON)
#include <arm_neon.h>
#define ORVA_LANES_NEON 1
#endif

namespace cpu {

// float(x) * a + b with one rounding, as the device's fused multiply-add. Without FMA hardware
// std::fma is a slow library routine, so the product is formed exactly in double instead.
inline float fused(float x, float a, float b) {
#if defined(__FMA__) || defined(__ARM_FEATURE_FMA)
  return std::fma(x, a, b);
#else
  return (float)((double)x * a + b);
#endif
}

#if defined(ORVA_LANES_F16C)
using Lanes = __m256;
using Mask = __m256;
inline Lanes load8(const Ftype* p) { return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
inline __m128i pack8(Lanes v) { return _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT); }
inline void store8(Ftype* p, Lanes v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), pack8(v)); }
inline Lanes loadf8(const float* p) { return _mm256_loadu_ps(p); }
inline void storef8(float* p, Lanes v) { _mm256_storeu_ps(p, v); }
inline Lanes round8(Lanes v) { return _mm256_cvtph_ps(pack8(v)); }
inline Lanes splat8(float a) { return _mm256_set1_ps(a); }
inline Lanes zero8() { return _mm256_setzero_ps(); }
inline Lanes mul8(Lanes a, Lanes b) { return _mm256_mul_ps(a, b); }
inline Lanes add8(Lanes a, Lanes b) { return _mm256_add_ps(a, b); }
inline Lanes sub8(Lanes a, Lanes b) { return _mm256_sub_ps(a, b); }
inline Lanes div8(Lanes a, Lanes b) { return _mm256_div_ps(a, b); }
inline Mask gt8(Lanes a, Lanes b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
inline Mask lt8(Lanes a, Lanes b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
// Bitwise rather than vblendvps, which GCC lowers lane by lane here.
inline Lanes pick8(Mask m, Lanes a, Lanes b) { return _mm256_or_ps(_mm256_and_ps(m, a), _mm256_andnot_ps(m, b)); }
inline Lanes fused8(Lanes x, float a, float b) {
#if defined(__FMA__)
  return _mm256_fmadd_ps(x, splat8(a), splat8(b));
#else
  const __m256d a4 = _mm256_set1_pd(a), b4 = _mm256_set1_pd(b);
  const __m128 lo = _mm256_castps256_ps128(x), hi = _mm256_extractf128_ps(x, 1);
  const __m128 rlo = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_mul_pd(_mm256_cvtps_pd(lo), a4), b4));
  const __m128 rhi = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_mul_pd(_mm256_cvtps_pd(hi), a4), b4));
  return _mm256_set_m128(rhi, rlo);
#endif
}
// Bit moves on sixteen halves at p: the even ones widened; evens and odds apart.
inline Lanes load8_even(const Ftype* p) {
  const __m128i even = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i lo = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), even);
  const __m128i hi = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), even);
  return _mm256_cvtph_ps(_mm_unpacklo_epi64(lo, hi));
}
inline void split8(const Ftype* p, Ftype* even, Ftype* odd) {
  const __m128i split = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
  const __m128i lo = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), split);
  const __m128i hi = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), split);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(even), _mm_unpacklo_epi64(lo, hi));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(odd), _mm_unpackhi_epi64(lo, hi));
}
// Each of the eight halves at p twice, into dst[0, 16) and row[0, 16).
inline void double8(const Ftype* p, Ftype* dst, Ftype* row) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i lo = _mm_unpacklo_epi16(v, v), hi = _mm_unpackhi_epi16(v, v);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), lo);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 8), hi);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(row), lo);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(row + 8), hi);
}

#elif defined(ORVA_LANES_NEON)
struct Lanes {
  float32x4_t lo, hi;
};
struct Mask {
  uint32x4_t lo, hi;
};
inline const uint16_t* bits(const Ftype* p) { return reinterpret_cast<const uint16_t*>(p); }
inline uint16_t* bits(Ftype* p) { return reinterpret_cast<uint16_t*>(p); }
inline Lanes widen8(float16x8_t h) { return {vcvt_f32_f16(vget_low_f16(h)), vcvt_high_f32_f16(h)}; }
inline float16x8_t pack8(Lanes v) { return vcvt_high_f16_f32(vcvt_f16_f32(v.lo), v.hi); }
inline Lanes load8(const Ftype* p) { return widen8(vreinterpretq_f16_u16(vld1q_u16(bits(p)))); }
inline void store8(Ftype* p, Lanes v) { vst1q_u16(bits(p), vreinterpretq_u16_f16(pack8(v))); }
inline Lanes loadf8(const float* p) { return {vld1q_f32(p), vld1q_f32(p + 4)}; }
inline void storef8(float* p, Lanes v) {
  vst1q_f32(p, v.lo);
  vst1q_f32(p + 4, v.hi);
}
inline Lanes round8(Lanes v) { return widen8(pack8(v)); }
inline Lanes splat8(float a) { return {vdupq_n_f32(a), vdupq_n_f32(a)}; }
inline Lanes zero8() { return splat8(0.f); }
inline Lanes mul8(Lanes a, Lanes b) { return {vmulq_f32(a.lo, b.lo), vmulq_f32(a.hi, b.hi)}; }
inline Lanes add8(Lanes a, Lanes b) { return {vaddq_f32(a.lo, b.lo), vaddq_f32(a.hi, b.hi)}; }
inline Lanes sub8(Lanes a, Lanes b) { return {vsubq_f32(a.lo, b.lo), vsubq_f32(a.hi, b.hi)}; }
inline Lanes div8(Lanes a, Lanes b) { return {vdivq_f32(a.lo, b.lo), vdivq_f32(a.hi, b.hi)}; }
inline Mask gt8(Lanes a, Lanes b) { return {vcgtq_f32(a.lo, b.lo), vcgtq_f32(a.hi, b.hi)}; }
inline Mask lt8(Lanes a, Lanes b) { return {vcltq_f32(a.lo, b.lo), vcltq_f32(a.hi, b.hi)}; }
inline Lanes pick8(Mask m, Lanes a, Lanes b) { return {vbslq_f32(m.lo, a.lo, b.lo), vbslq_f32(m.hi, a.hi, b.hi)}; }
inline Lanes fused8(Lanes x, float a, float b) {
  const float32x4_t a4 = vdupq_n_f32(a), b4 = vdupq_n_f32(b);
  return {vfmaq_f32(b4, x.lo, a4), vfmaq_f32(b4, x.hi, a4)};
}
inline Lanes load8_even(const Ftype* p) { return widen8(vreinterpretq_f16_u16(vld2q_u16(bits(p)).val[0])); }
inline void split8(const Ftype* p, Ftype* even, Ftype* odd) {
  const uint16x8x2_t v = vld2q_u16(bits(p));
  vst1q_u16(bits(even), v.val[0]);
  vst1q_u16(bits(odd), v.val[1]);
}
inline void double8(const Ftype* p, Ftype* dst, Ftype* row) {
  const uint16x8_t v = vld1q_u16(bits(p));
  const uint16x8x2_t twice = {{v, v}};
  vst2q_u16(bits(dst), twice);
  vst2q_u16(bits(row), twice);
}

#else
struct Lanes {
  float v[8];
};
using Mask = Lanes;  // 1 where set
template <typename Op>
inline Lanes each8(Op op) {
  Lanes r;
  for (int k = 0; k < 8; ++k) r.v[k] = op(k);
  return r;
}
inline Lanes load8(const Ftype* p) { return each8([&](int k) { return h2f(p[k]); }); }
inline void store8(Ftype* p, Lanes v) {
  for (int k = 0; k < 8; ++k) p[k] = f2h(v.v[k]);
}
inline Lanes loadf8(const float* p) { return each8([&](int k) { return p[k]; }); }
inline void storef8(float* p, Lanes v) { memcpy(p, v.v, sizeof v.v); }
inline Lanes round8(Lanes v) { return each8([&](int k) { return h2f(f2h(v.v[k])); }); }
inline Lanes splat8(float a) { return each8([&](int) { return a; }); }
inline Lanes zero8() { return splat8(0.f); }
inline Lanes mul8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] * b.v[k]; }); }
inline Lanes add8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] + b.v[k]; }); }
inline Lanes sub8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] - b.v[k]; }); }
inline Lanes div8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] / b.v[k]; }); }
inline Mask gt8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] > b.v[k] ? 1.f : 0.f; }); }
inline Mask lt8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] < b.v[k] ? 1.f : 0.f; }); }
inline Lanes pick8(Mask m, Lanes a, Lanes b) { return each8([&](int k) { return m.v[k] != 0.f ? a.v[k] : b.v[k]; }); }
inline Lanes fused8(Lanes x, float a, float b) { return each8([&](int k) { return fused(x.v[k], a, b); }); }
inline Lanes load8_even(const Ftype* p) { return each8([&](int k) { return h2f(p[2 * k]); }); }
inline void split8(const Ftype* p, Ftype* even, Ftype* odd) {
  for (int k = 0; k < 8; ++k) even[k] = p[2 * k], odd[k] = p[2 * k + 1];
}
inline void double8(const Ftype* p, Ftype* dst, Ftype* row) {
  for (int k = 0; k < 8; ++k) dst[2 * k] = dst[2 * k + 1] = row[2 * k] = row[2 * k + 1] = p[k];
}
#endif

inline Lanes splat8(_half h) { return splat8(h2f(h)); }

}  // namespace cpu
