// Background models for a fixed camera.
#pragma once
#include "orva/export.h"
#include <opencv2/core.hpp>

ORVA_API_BEGIN

namespace ORVA {

// Frames are 8-bit images of the geometry given at construction (1 or 3 channels).
class BGS {
 public:
  BGS(int w, int h, int c);
  virtual ~BGS();
  virtual bool init(cv::Mat& frame, int value);
  virtual bool update(cv::Mat& frame, float rate);
  virtual cv::Mat getBackground();
  virtual cv::Mat getForeground(cv::Mat& frame);

 protected:
  bool _matches(const cv::Mat& frame) const;

  int _w;
  int _h;
  int _c;
};

// Approximate running median in 16-bit fixed point (7 fractional bits). Each update steps
// every element towards the frame by `_alpha`, which decays by one unit per update down to
// `_alpha_min`.
class MedianBGS : public BGS {
 public:
  MedianBGS(int w, int h, int c);
  // value >= 0: a flat background of that grey level; value < 0: seeded from the frame
  // (half way between the frame and mid-grey).
  bool init(cv::Mat& frame, int value) override;
  // `rate` is ignored; the step size follows `_alpha`.
  bool update(cv::Mat& frame, float rate) override;
  cv::Mat getBackground() override;
  // Absolute difference between the frame and the background, not thresholded.
  cv::Mat getForeground(cv::Mat& frame) override;
  void setParameter(int alphaMin);

 protected:
  int _alpha;
  int _alpha_min;
  cv::Mat _bimg;
};

}  // namespace ORVA

ORVA_API_END
