// Running-median background: seeding, the asymmetric step, step decay, bad frames.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "harness.h"
#include "orva/bgs.h"

namespace {

using ORVA::MedianBGS;

// Exposes the fixed-point model so the step rule can be checked value by value.
class MedianProbe : public MedianBGS {
 public:
  using MedianBGS::MedianBGS;
  cv::Mat& model() { return _bimg; }
  int alpha() const { return _alpha; }
};

cv::Mat random_frame(int w, int h, int type) {
  cv::Mat m(h, w, type);
  cv::randu(m, 0, 256);
  return m;
}

bool all_equal(const cv::Mat& m, double v) { return cv::countNonZero(m.reshape(1) != v) == 0; }

TEST(MedianBGS, InitSeedsFlatOrHalfWayToMidGrey) {
  MedianProbe m(8, 4, 1);
  // A flat level does not read the frame, so any frame will do.
  cv::Mat wrongSize(3, 3, CV_8UC3);
  ASSERT_TRUE(m.init(wrongSize, 10));
  EXPECT_TRUE(all_equal(m.model(), 1280));
  EXPECT_TRUE(all_equal(m.getBackground(), 10));
  cv::Mat black(4, 8, CV_8UC1, cv::Scalar(0)), white(4, 8, CV_8UC1, cv::Scalar(255));
  ASSERT_TRUE(m.init(black, -1));
  EXPECT_TRUE(all_equal(m.getBackground(), 64));
  ASSERT_TRUE(m.init(white, -1));
  EXPECT_TRUE(all_equal(m.model(), 24512));
  EXPECT_TRUE(all_equal(m.getBackground(), 191));
  // Levels above 255 saturate rather than wrap to a negative background.
  ASSERT_TRUE(m.init(black, 1000));
  EXPECT_TRUE(all_equal(m.getBackground(), 255));
}

// Down by the step only where that does not pass the frame, up always: above the frame by less
// than the step stays, below it moves up past the frame. Random frames and models reach every
// case; the whole-frame (vectorised) path and the row-wise path of a frame view both run.
TEST(MedianBGS, UpdateFollowsTheElementRuleOnColourFrames) {
  const int w = 37, h = 11;
  MedianProbe m(w, h, 3);
  cv::Mat big = random_frame(w + 5, h, CV_8UC3);
  cv::Mat view = big(cv::Rect(2, 0, w, h));  // not continuous
  cv::Mat seed = random_frame(w, h, CV_8UC3);
  ASSERT_TRUE(m.init(seed, -1));
  for (int step = 0; step < 3; step++) {
    cv::Mat frame = step == 1 ? view : random_frame(w, h, CV_8UC3);
    cv::Mat expected = m.model().clone();
    const int a = m.alpha();
    for (int y = 0; y < h; y++)
      for (int i = 0; i < w * 3; i++) {
        short& b = expected.ptr<short>(y)[i];
        const int P = frame.ptr<unsigned char>(y)[i] * 128;
        if (b > P) b -= a;
        if (b < P) b += a;
      }
    ASSERT_TRUE(m.update(frame, 0.f));
    EXPECT_EQ(cv::countNonZero(expected.reshape(1) != m.model().reshape(1)), 0) << "step " << step;
    EXPECT_EQ(m.alpha(), a - 1);
    cv::Mat fg = m.getForeground(frame);
    ASSERT_EQ(fg.type(), CV_8UC3);
    for (int y = 0; y < h; y++)
      for (int i = 0; i < w * 3; i++)
        ASSERT_EQ(fg.ptr<unsigned char>(y)[i],
                  (unsigned char)std::abs(frame.ptr<unsigned char>(y)[i] - (m.model().ptr<short>(y)[i] >> 7)));
  }
}

TEST(MedianBGS, StepDecaysToTheFloorAndConverges) {
  MedianProbe m(4, 4, 1);
  cv::Mat black(4, 4, CV_8UC1, cv::Scalar(0)), grey(4, 4, CV_8UC1, cv::Scalar(200));
  m.setParameter(0);
  ASSERT_TRUE(m.init(black, 0));
  // Steps 128, 127, ... 1 add up to 8256 (64.5 grey levels); then the model freezes.
  for (int i = 0; i < 200; i++) ASSERT_TRUE(m.update(grey, 0.f));
  EXPECT_EQ(m.alpha(), 0);
  EXPECT_EQ(m.model().at<short>(0), 8256);
  m.setParameter(64);
  EXPECT_EQ(m.alpha(), 128);
  for (int i = 0; i < 400; i++) ASSERT_TRUE(m.update(grey, 0.f));
  EXPECT_EQ(m.alpha(), 64);
  // Settled in [P, P + a): reads as the frame.
  EXPECT_TRUE(all_equal(m.getBackground(), 200));
  EXPECT_EQ(cv::countNonZero(m.getForeground(grey)), 0);
}

TEST(MedianBGS, MismatchedFramesChangeNothing) {
  MedianProbe m(16, 8, 1);
  cv::Mat ok = random_frame(16, 8, CV_8UC1);
  EXPECT_FALSE(m.update(ok, 0.f)) << "no model before init";
  EXPECT_TRUE(m.getBackground().empty());
  EXPECT_TRUE(m.getForeground(ok).empty());
  ASSERT_TRUE(m.init(ok, -1));
  const cv::Mat before = m.model().clone();
  const int alphaBefore = m.alpha();
  cv::Mat bad[] = {random_frame(15, 8, CV_8UC1), random_frame(16, 9, CV_8UC1), random_frame(16, 8, CV_8UC3),
                   cv::Mat(8, 16, CV_16UC1, cv::Scalar(1000)), cv::Mat()};
  for (cv::Mat& f : bad) {
    EXPECT_FALSE(m.update(f, 0.f));
    EXPECT_FALSE(m.init(f, -1));
    EXPECT_TRUE(m.getForeground(f).empty());
  }
  EXPECT_EQ(cv::countNonZero(before != m.model()), 0);
  EXPECT_EQ(m.alpha(), alphaBefore);
  // Unsupported geometry is refused at init.
  MedianBGS four(4, 4, 4);
  cv::Mat f4(4, 4, CV_8UC4);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(four.init(f4, 0));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("ERROR"), std::string::npos);
}

}  // namespace
