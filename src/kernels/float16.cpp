#include "orva/float16.h"

#include <cstring>

#include "backend/backend.h"
#include "kernels/float16_kernel.h"

namespace {

struct FloatToHalfTables {
  unsigned short base_table[512];
  unsigned char shift_table[512];
  FloatToHalfTables() {
    for (int i = 0; i < 512; ++i) {
      const int e = (i & 0xFF) - 127;
      const unsigned short s = i >= 256 ? 0x8000 : 0;
      if (e < -24) {
        base_table[i] = s;
        shift_table[i] = 24;
      } else if (e < -14) {
        base_table[i] = s | (0x0400 >> (-e - 14));
        shift_table[i] = (unsigned char)(-e - 1);
      } else if (e <= 15) {
        base_table[i] = s | (unsigned short)((e + 15) << 10);
        shift_table[i] = 13;
      } else if (e < 128) {
        base_table[i] = s | 0x7C00;
        shift_table[i] = 24;
      } else {
        base_table[i] = s | 0x7C00;
        shift_table[i] = 13;
      }
    }
  }
};

struct HalfToFloatTables {
  unsigned short offset_table[64];
  uint32_t exponent_table[64];
  uint32_t mantissa_table[2048];
  HalfToFloatTables() {
    for (int j = 0; j < 64; ++j) offset_table[j] = (j == 0 || j == 32) ? 0 : 1024;
    exponent_table[0] = 0;
    for (int j = 1; j < 31; ++j) exponent_table[j] = (uint32_t)j << 23;
    exponent_table[31] = 0x47800000;
    exponent_table[32] = 0x80000000;
    for (int j = 33; j < 63; ++j) exponent_table[j] = 0x80000000u + ((uint32_t)(j - 32) << 23);
    exponent_table[63] = 0xC7800000;
    mantissa_table[0] = 0;
    for (uint32_t k = 1; k < 1024; ++k) {
      uint32_t m = k << 13, e = 0;
      while (!(m & 0x00800000)) {
        e -= 0x00800000;
        m <<= 1;
      }
      m &= ~0x00800000u;
      e += 0x38800000;
      mantissa_table[k] = m | e;
    }
    for (uint32_t k = 1024; k < 2048; ++k) mantissa_table[k] = 0x38000000u + ((k - 1024) << 13);
  }
};

}  // namespace

unsigned short _float2half_true(float f) {
  static const FloatToHalfTables t;
  uint32_t b;
  memcpy(&b, &f, 4);
  const uint32_t i = b >> 23, m = b & 0x7FFFFF;
  const unsigned shift = t.shift_table[i];
  unsigned short h = (unsigned short)(t.base_table[i] + (m >> shift));
  // Ties away from zero; exponent 102 lifts [2^-25, 2^-24) to the smallest subnormal.
  if ((h & 0x7C00) != 0x7C00 && (((m >> (shift - 1)) & 1) || (i & 0xFF) == 102)) ++h;
  return h;
}

float _half2float_true(unsigned short h) {
  static const HalfToFloatTables t;
  const unsigned j = h >> 10, m = h & 0x3FF;
  const uint32_t b = t.mantissa_table[t.offset_table[j] + m] + t.exponent_table[j];
  float f;
  memcpy(&f, &b, 4);
  return f;
}

unsigned short float2half_cpu(float f) { return _float2half_true(f); }
float half2float_cpu(unsigned short h) { return _half2float_true(h); }

void float2half_cpu(const float* src, _half* dst, size_t n) {
  // Ascending: in place, half k lands on bytes already consumed.
  for (size_t k = 0; k < n; ++k) {
    const unsigned short h = _float2half_true(src[k]);
    memcpy(dst + k, &h, 2);
  }
}

void half2float_cpu(float* dst, const _half* src, size_t n) {
  // Descending: in place, float k never overwrites a half not yet read.
  for (size_t k = n; k-- > 0;) {
    unsigned short h;
    memcpy(&h, src + k, 2);
    const float f = _half2float_true(h);
    memcpy(dst + k, &f, 4);
  }
}

void float2half_gpu(void* handle, const float* src, _half* dst, size_t n) {
  if (n) ORVA_DISPATCH(handle, float2half, src, dst, n);
}

void half2float_gpu(void* handle, float* dst, const _half* src, size_t n) {
  if (n) ORVA_DISPATCH(handle, half2float, dst, src, n);
}
