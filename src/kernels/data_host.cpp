// Host twins of the image conversion kernels, value for value.
#include <tbb/blocked_range.h>
#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>

#include "kernels/data_kernel.h"
#include "kernels/half_math.h"

namespace cpu {

namespace {

// byte / 255 rounded once to half, as the device computes it.
struct ByteToHalf {
  _half v[256];
  ByteToHalf() {
    for (int i = 0; i < 256; ++i) v[i] = f2h(_ctable[i]);
  }
};

inline unsigned char narrow(_half h) {
  const float v = h2f(h) * 255.f;
  if (!(v >= 0.f)) return 0;
  return (unsigned char)(v < 255.f ? v : 255.f);
}

}  // namespace

void cv2data(void*, const unsigned char* src, Ftype* dst, unsigned char*, int npix, int c, int groups) {
  static const ByteToHalf table;
  if (c == 1) {
    const size_t n = (size_t)npix * groups;
    tbb::parallel_for(tbb::blocked_range<size_t>(0, n, 16384), [&](const tbb::blocked_range<size_t>& r) {
      for (size_t i = r.begin(); i != r.end(); ++i) dst[i] = table.v[src[i]];
    });
    return;
  }
  // Rows of the range are output planes (group g, channel k), columns are pixels.
  const int planes = c * groups;
  tbb::parallel_for(tbb::blocked_range2d<int>(0, planes, 1, 0, npix, 16384),
                    [&](const tbb::blocked_range2d<int>& r) {
                      for (int plane = r.rows().begin(); plane != r.rows().end(); ++plane) {
                        const int g = plane / c, k = plane % c;
                        const unsigned char* in = src + (size_t)g * npix * c + (c - 1 - k);
                        Ftype* out = dst + (size_t)plane * npix;
                        for (int p = r.cols().begin(); p != r.cols().end(); ++p) out[p] = table.v[in[(size_t)p * c]];
                      }
                    });
}

void data2cv(void*, const Ftype* src, unsigned char* dst, unsigned char*, int npix, int c) {
  if (c < 2) {
    tbb::parallel_for(tbb::blocked_range<int>(0, npix, 16384), [&](const tbb::blocked_range<int>& r) {
      for (int i = r.begin(); i != r.end(); ++i) dst[i] = narrow(src[i]);
    });
    return;
  }
  tbb::parallel_for(tbb::blocked_range<int>(0, npix, 8192), [&](const tbb::blocked_range<int>& r) {
    for (int p = r.begin(); p != r.end(); ++p)
      for (int s = 0; s < c; ++s) dst[(size_t)p * c + s] = narrow(src[(size_t)(c - 1 - s) * npix + p]);
  });
}

}  // namespace cpu
