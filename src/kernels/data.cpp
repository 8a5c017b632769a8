// Conversions between 8-bit interleaved images and planar values in [0, 1]: on the network's
// backend for inference input and output, on the host for the float image record.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cstdlib>

#include "base/error.h"
#include "backend/backend.h"
#include "kernels/data_kernel.h"
#include "orva/data.h"
#include "orva/util.h"

// Written out as constant expressions so the table is data, not start-up code.
#define ORVA_CT4(i) (i) / 255.f, (i + 1) / 255.f, (i + 2) / 255.f, (i + 3) / 255.f
#define ORVA_CT16(i) ORVA_CT4(i), ORVA_CT4(i + 4), ORVA_CT4(i + 8), ORVA_CT4(i + 12)
#define ORVA_CT64(i) ORVA_CT16(i), ORVA_CT16(i + 16), ORVA_CT16(i + 32), ORVA_CT16(i + 48)
const float _ctable[256] = {ORVA_CT64(0), ORVA_CT64(64), ORVA_CT64(128), ORVA_CT64(192)};
#undef ORVA_CT4
#undef ORVA_CT16
#undef ORVA_CT64

void cvt_cv2data(void* handle, const unsigned char* src, Ftype* dst, unsigned char* raw, int npix, int c,
                 int cgroup, int batch) {
  // A request for cgroup -1 arrives with c = -channels: an ordinary interleaved image.
  if (cgroup < 0 && c < 0) {
    c = -c;
    cgroup = -cgroup;
  }
  if (npix < 0 || c < 0 || cgroup < 0 || batch < 0)
    ORVA_THROW("cvt_cv2data: npix %d, c %d, cgroup %d, batch %d must not be negative", npix, c, cgroup, batch);
  if ((size_t)npix * c * cgroup * batch == 0) return;
  if (!src || !dst || !raw)
    ORVA_THROW("cvt_cv2data: null buffer (src %p, dst %p, raw %p)", (const void*)src, (void*)dst, (void*)raw);
  ORVA_DISPATCH(handle, cv2data, src, dst, raw, npix, c, cgroup * batch);
}

void cvt_data2cv(void* handle, const Ftype* src, unsigned char* dst, unsigned char* raw, int npix, int c) {
  if (npix < 0 || c < 1)
    ORVA_THROW("cvt_data2cv: npix %d must not be negative and c %d must be at least 1", npix, c);
  if (npix == 0) return;
  if (!src || !dst || !raw)
    ORVA_THROW("cvt_data2cv: null buffer (src %p, dst %p, raw %p)", (const void*)src, (void*)dst, (void*)raw);
  ORVA_DISPATCH(handle, data2cv, src, dst, raw, npix, c);
}

void cvt_cv2image(cv::Mat& m, ORVA::Image& img) {
  if (m.depth() != CV_8U)
    ORVA_THROW("cvt_cv2image: matrix depth %d is not 8-bit (%d)", m.depth(), CV_8U);
  const int w = m.cols, h = m.rows, c = m.channels();
  img.w = w;
  img.h = h;
  img.c = c;
  img.data = (float*)malloc(sizeof(float) * w * h * c);
  if (!img.data) return;
  float* data = img.data;
  const size_t plane = (size_t)w * h;
  // Row pointers rather than m.data, so a region of a larger matrix converts too.
  tbb::parallel_for(tbb::blocked_range<int>(0, h), [&](const tbb::blocked_range<int>& r) {
    for (int y = r.begin(); y != r.end(); ++y) {
      const unsigned char* row = m.ptr<unsigned char>(y);
      for (int x = 0; x < w; ++x) {
        const size_t p = (size_t)y * w + x;
        for (int k = 0; k < c; ++k) data[k * plane + p] = _ctable[row[x * c + c - 1 - k]];
      }
    }
  });
}

void cvt_image2cv(ORVA::Image& img, cv::Mat& m) {
  if (img.c != 1 && img.c != 3) ORVA_THROW("channel of image must be 1 or 3");
  const int w = img.w, h = img.h, c = img.c;
  if (w < 0 || h < 0)
    ORVA_THROW("cvt_image2cv: image size %d x %d is negative", w, h);
  m.create(h, w, c == 3 ? CV_8UC3 : CV_8UC1);
  if (w == 0 || h == 0) return;
  if (!img.data)
    ORVA_THROW("cvt_image2cv: image of %d x %d has no data", w, h);
  const float* data = img.data;
  const size_t plane = (size_t)w * h;
  tbb::parallel_for(tbb::blocked_range<size_t>(0, plane, 4096), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t p = r.begin(); p != r.end(); ++p) {
      unsigned char* px = m.ptr<unsigned char>((int)(p / w)) + (p % w) * c;
      for (int k = 1; k <= c; ++k) {
        const float v = data[(k - 1) * plane + p] * 255.f;
        // Truncation, not rounding: 0.999 gives 254.
        px[c - k] = !(v >= 0.f) ? 0 : (unsigned char)(v < 255.f ? v : 255.f);
      }
    }
  });
}
