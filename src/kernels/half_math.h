// Host half arithmetic helpers for the host twins: each half step is computed in float and
// rounded to nearest even, as the device's native conversion does.
#pragma once
#include <cstdint>
#include <cstring>

#include "orva/float16.h"

#if defined(__F16C__)
#include <immintrin.h>
#endif

namespace cpu {

// Conversions without hardware help: the path on CPUs that have no half conversion
// instructions, and what the instructions are tested against on those that have them.
inline float h2f_soft(_half h) {
  const uint32_t sign = (uint32_t)(h.__x & 0x8000) << 16, e = (h.__x >> 10) & 0x1F, m = h.__x & 0x3FF;
  uint32_t b;
  if (e == 0x1F) {
    // infinity; NaN with its payload, made quiet as the instructions do
    b = sign | 0x7F800000 | (m << 13) | (m ? 0x400000u : 0u);
  } else if (e != 0) {
    b = sign | ((e + 112) << 23) | (m << 13);
  } else {
    // zero or subnormal: m * 2^-24, exact in float
    const float f = (float)m * 5.9604644775390625e-8f;
    memcpy(&b, &f, 4);
    b |= sign;
  }
  float f;
  memcpy(&f, &b, 4);
  return f;
}

inline _half f2h_soft(float f) {
  uint32_t b;
  memcpy(&b, &f, 4);
  const uint32_t sign = (b >> 16) & 0x8000;
  const uint32_t absb = b & 0x7FFFFFFF;
  // NaN keeps its top payload bits and becomes quiet, as the instructions do
  if (absb > 0x7F800000) return _half{(unsigned short)(sign | 0x7E00 | ((absb >> 13) & 0x3FF))};
  if (absb >= 0x477FF000) return _half{(unsigned short)(sign | 0x7C00)};  // 65520 and up, infinity
  if (absb <= 0x33000000) return _half{(unsigned short)sign};            // up to 2^-25, a tie to zero
  const int e = (int)(absb >> 23) - 127;
  const uint32_t mant = (absb & 0x7FFFFF) | 0x800000;
  // Subnormal results keep mant >> (-1 - e) in units of 2^-24, normal ones 10 bits.
  const int shift = e < -14 ? (-1 - e) : 13;
  uint32_t h = e < -14 ? 0 : (uint32_t)(e + 15) << 10;
  const uint32_t q = mant >> shift, rem = mant & ((1u << shift) - 1), halfway = 1u << (shift - 1);
  h += e < -14 ? q : (q & 0x3FF);
  if (rem > halfway || (rem == halfway && (h & 1))) ++h;  // a carry moves into the exponent
  return _half{(unsigned short)(sign | h)};
}

inline float h2f(_half h) {
#if defined(__F16C__)
  return _cvtsh_ss(h.__x);
#elif defined(__aarch64__)
  __fp16 v;
  memcpy(&v, &h, 2);
  return (float)v;
#else
  return h2f_soft(h);
#endif
}

inline _half f2h(float f) {
#if defined(__F16C__)
  return _half{(unsigned short)_cvtss_sh(f, _MM_FROUND_TO_NEAREST_INT)};
#elif defined(__aarch64__)
  __fp16 v = (__fp16)f;
  _half h;
  memcpy(&h, &v, 2);
  return h;
#else
  return f2h_soft(f);
#endif
}

// Native half multiply and add: exact in float, then one rounding.
inline _half hmul(_half a, _half b) { return f2h(h2f(a) * h2f(b)); }
inline _half hadd(_half a, _half b) { return f2h(h2f(a) + h2f(b)); }

}  // namespace cpu
