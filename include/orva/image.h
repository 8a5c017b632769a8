// Image tools for video analytics: perceptual hash, dominant colours, letterbox resize.
#pragma once
#include "orva/export.h"
#include <opencv2/core.hpp>

ORVA_API_BEGIN

namespace ORVA {

// Value = hash length in bits plus a colour-space marker in the thousands.
enum HashMode {
  GRAY_32BIT = 32,
  GRAY_64BIT = 64,
  RGB_96BIT = 4192,
  RGB_192BIT = 8384,
  YUV_96BIT = 8288,
  YUV_128BIT = 8320,
  HSV_96BIT = 12384,
  HSV_128BIT = 12416,
};

// src: 8-bit BGR. `hash` becomes one row of bytes (4 to 24 depending on the mode). An empty
// source or an unknown mode leaves `hash` empty.
void computeHash(const cv::Mat& src, cv::Mat& hash, HashMode mode);
// Fraction of differing bits in 0..1; -1.0 when the sizes differ or both are empty.
float compareHash(const cv::Mat& a, const cv::Mat& b);

// The two dominant colour codes (0..7) of the box scaled about its centre:
// (second << 8) | first. img: 8-bit BGR; the scaled box must lie inside it.
int classifyColor(cv::Mat& img, cv::Rect_<int> box, float scale);

// Letterbox `src` into the target size held in *size (nothing happens when either side is
// 0). Pads on the right or at the bottom with `fill`; *size receives the source size,
// widened along the padded axis so that boxes found in `dst` map back to `src` by scaling.
// A negative tolerance always stretches. A negative side, an empty source or one that is not
// 8-bit with 1 or 3 channels throws std::runtime_error and leaves dst alone.
void resize_ratio(const cv::Mat& src, cv::Mat& dst, cv::Size* size, float tolerance, unsigned char fill);

}  // namespace ORVA

ORVA_API_END
