// Host half arithmetic helpers for the host twins: each half step is computed in float
// and rounded to nearest even, as the device's native conversion does.
#pragma once
#include <cstring>
#include "orva/float16.h"

#if defined(__F16C__)
#include <immintrin.h>
#endif

namespace cpu {

inline float h2f(_half h) {
#if defined(__F16C__)
  return _cvtsh_ss(h.__x);
#elif defined(__aarch64__)
  __fp16 v;
  memcpy(&v, &h, 2);
  return (float)v;
#else
  return _half2float_true(h.__x);
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
  // Round to nearest even without hardware help.
  uint32_t b;
  memcpy(&b, &f, 4);
  const uint32_t sign = (b >> 16) & 0x8000;
  const uint32_t absb = b & 0x7FFFFFFF;
  if (absb >= 0x7F800000) return _half{(unsigned short)(sign | 0x7C00 | (absb > 0x7F800000 ? 0x200 | ((absb >> 13) & 0x3FF) : 0))};
  if (absb >= 0x477FF000) return _half{(unsigned short)(sign | 0x7C00)};
  if (absb < 0x33000001) return _half{(unsigned short)sign};
  int e = (int)(absb >> 23) - 127;
  uint32_t mant = (absb & 0x7FFFFF) | 0x800000;
  int shift = e < -14 ? (-1 - e) : 13;
  uint32_t h = e < -14 ? 0 : (uint32_t)(e + 15) << 10;
  uint32_t q = mant >> shift, rem = mant & ((1u << shift) - 1), halfway = 1u << (shift - 1);
  h += e < -14 ? q : (q & 0x3FF);
  if (rem > halfway || (rem == halfway && (h & 1))) ++h;
  return _half{(unsigned short)(sign | h)};
#endif
}

// Native half multiply and add: exact in float, then one rounding.
inline _half hmul(_half a, _half b) { return f2h(h2f(a) * h2f(b)); }
inline _half hadd(_half a, _half b) { return f2h(h2f(a) + h2f(b)); }

}  // namespace cpu
