#include "base/chksum.h"

#include <cstdint>
#include <cstring>

namespace {
const uint32_t P1 = 2654435761u, P2 = 2246822519u, P3 = 3266489917u, P4 = 668265263u, P5 = 374761393u;

inline uint32_t rotl(uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }
inline uint32_t read32(const uint8_t* p) {
  // little-endian whatever the host order
  return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}
inline uint32_t round32(uint32_t acc, uint32_t input) { return rotl(acc + input * P2, 13) * P1; }
}  // namespace

unsigned int xxh32(const void* data, unsigned int len, unsigned int seed) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  const uint8_t* const end = p + len;
  uint32_t h;
  if (len >= 16) {
    uint32_t v1 = seed + P1 + P2, v2 = seed + P2, v3 = seed, v4 = seed - P1;
    const uint8_t* const limit = end - 16;
    do {
      v1 = round32(v1, read32(p));
      v2 = round32(v2, read32(p + 4));
      v3 = round32(v3, read32(p + 8));
      v4 = round32(v4, read32(p + 12));
      p += 16;
    } while (p <= limit);
    h = rotl(v1, 1) + rotl(v2, 7) + rotl(v3, 12) + rotl(v4, 18);
  } else {
    h = seed + P5;
  }
  h += len;
  for (; p + 4 <= end; p += 4) h = rotl(h + read32(p) * P3, 17) * P4;
  for (; p < end; ++p) h = rotl(h + (*p) * P5, 11) * P1;
  h ^= h >> 15;
  h *= P2;
  h ^= h >> 13;
  h *= P3;
  h ^= h >> 16;
  return h;
}

unsigned int adler32(const void* data, unsigned int len, unsigned int adler) {
  const uint32_t MOD = 65521;
  const uint8_t* p = static_cast<const uint8_t*>(data);
  uint32_t a = adler & 0xFFFF, b = adler >> 16;
  while (len) {
    // 5552 is the longest run whose sums can't overflow 32 bits before the reduction.
    unsigned n = len < 5552 ? len : 5552;
    len -= n;
    while (n--) {
      a += *p++;
      b += a;
    }
    a %= MOD;
    b %= MOD;
  }
  return (b << 16) | a;
}
