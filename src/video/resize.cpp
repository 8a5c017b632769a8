// Ratio-preserving letterbox into a network input size.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/error.h"
#include "orva/image.h"
#include "orva/util.h"

namespace ORVA {

namespace {

// Shrinking by k >= 2 first averages k x k blocks (OpenCV's integer area path, about five
// times faster than a general area resize of 1080p) so that small objects don't alias away,
// then resamples bilinearly by the remaining factor, which is below 2.
void resample(const cv::Mat& src, cv::Mat& roi, cv::Size fit) {
  const int k = std::min(src.cols / fit.width, src.rows / fit.height);
  if (k >= 2) {
    cv::Mat reduced;
    cv::resize(src, reduced, cv::Size(), 1.0 / k, 1.0 / k, cv::INTER_AREA);
    cv::resize(reduced, roi, fit, 0, 0, cv::INTER_LINEAR);
  } else {
    cv::resize(src, roi, fit, 0, 0, cv::INTER_LINEAR);
  }
}

}  // namespace

void resize_ratio(const cv::Mat& src, cv::Mat& dst, cv::Size* size, float tolerance, unsigned char fill) {
  if (!size || size->width == 0 || size->height == 0) return;
  const int W = size->width, H = size->height;
  if (W < 0 || H < 0) ORVA_THROW("invalid target size %d x %d", W, H);
  if (src.empty()) ORVA_THROW("empty source image");
  if (src.depth() != CV_8U || (src.channels() != 1 && src.channels() != 3))
    ORVA_THROW("unsupported image channels");
  const int cols = src.cols, rows = src.rows;
  *size = cv::Size(cols, rows);

  // Built aside so that dst may be src itself.
  cv::Mat out(H, W, src.type(), cv::Scalar::all(fill));
  cv::Size fit(W, H);
  if (tolerance >= 0) {
    const float rt = (float)W / H, rs = (float)cols / rows;
    // At least one column or row survives, however extreme the source's shape.
    if (rt - tolerance > rs) {
      fit.width = std::max(1, (int)std::lround(W * rs / (rt - tolerance)));
      size->width = (int)std::lround((double)cols * W / fit.width);
    } else if (rs - tolerance > rt) {
      fit.height = std::max(1, (int)std::lround(H * rt / (rs - tolerance)));
      size->height = (int)std::lround((double)rows * H / fit.height);
    }
  }
  cv::Mat roi = out(cv::Rect(0, 0, fit.width, fit.height));
  resample(src, roi, fit);
  dst = out;
}

}  // namespace ORVA
