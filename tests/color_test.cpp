// Colour classification and the letterbox resize.
#include <gtest/gtest.h>

#include "orva/image.h"

namespace {

using namespace ORVA;

cv::Mat filled(int w, int h, cv::Scalar bgr) { return cv::Mat(h, w, CV_8UC3, bgr); }

int first_code(int r) { return r & 0xFF; }
int second_code(int r) { return r >> 8; }

TEST(ColorClassify, NamesPureColoursByTheirFamily) {
  const cv::Rect box(0, 0, 64, 64);
  const struct {
    cv::Scalar bgr;
    int code;
    const char* what;
  } cases[] = {
      {{0, 0, 0}, 0, "black"},          {{200, 200, 200}, 1, "light grey"},
      {{0, 0, 255}, 2, "red"},          {{0, 255, 255}, 3, "yellow (band 2)"},
      {{0, 255, 0}, 4, "green (band 4)"}, {{255, 255, 0}, 5, "cyan (band 6)"},
      {{255, 0, 0}, 6, "blue (band 8)"}, {{255, 0, 200}, 7, "violet (band 9/10)"},
      {{80, 0, 255}, 2, "crimson: band 11 wraps to red"},
  };
  for (auto& c : cases) {
    cv::Mat img = filled(64, 64, c.bgr);
    int r = classifyColor(img, box, 1.0f);
    EXPECT_EQ(first_code(r), c.code) << c.what;
    // One colour only: the second stays cell 0 (dark) with no votes.
    EXPECT_EQ(second_code(r), 0) << c.what;
  }
}

TEST(ColorClassify, EqualHalvesGoToTheLowerCellFirst) {
  // 64 x 32 halves shrink to exactly 16 + 16 columns; green (cell 79) precedes blue (143)
  // whichever side it is on.
  for (bool greenLeft : {true, false}) {
    cv::Mat img(32, 64, CV_8UC3);
    img(cv::Rect(0, 0, 32, 32)).setTo(greenLeft ? cv::Scalar(0, 255, 0) : cv::Scalar(255, 0, 0));
    img(cv::Rect(32, 0, 32, 32)).setTo(greenLeft ? cv::Scalar(255, 0, 0) : cv::Scalar(0, 255, 0));
    EXPECT_EQ(classifyColor(img, cv::Rect(0, 0, 64, 32), 1.0f), (6 << 8) | 4);
  }
}

TEST(ColorClassify, ScaledBoxIsCroppedAboutItsCentre) {
  // scale 0.5 on a 100 x 60 box at (10, 20) must crop exactly (35, 35, 50, 30): a crop off
  // by one pixel would pull in blue.
  cv::Mat img = filled(200, 150, cv::Scalar(255, 0, 0));
  img(cv::Rect(35, 35, 50, 30)).setTo(cv::Scalar(0, 0, 255));
  EXPECT_EQ(classifyColor(img, cv::Rect(10, 20, 100, 60), 0.5f), 2);
  EXPECT_THROW(classifyColor(img, cv::Rect(180, 0, 100, 60), 1.0f), cv::Exception) << "box leaves the image";
}

// --------------------------------------------------------------- letterbox resize

TEST(ResizeRatio, LetterboxOrStretchAndTheSizeReturned) {
  // Uniform sources: the image covers `fit` at the top left of the output, the fill the rest;
  // the size returned is the frame the output stands for (the source's size widened by the
  // padding).
  const struct {
    int w, h, channels;
    cv::Size target;
    float tolerance;
    cv::Size fit, want;
  } cases[] = {
      {400, 200, 3, {100, 80}, 0.f, {100, 50}, {400, 320}},    // wide: padded below
      {100, 300, 1, {120, 90}, 0.f, {30, 90}, {400, 300}},     // tall grey: padded on the right
      {110, 100, 3, {100, 100}, 0.2f, {100, 100}, {110, 100}}, // ratio 1.1 is within 0.2 of 1: stretched
      {110, 100, 3, {100, 100}, 0.f, {100, 91}, {110, 110}},   // but not within 0
      {400, 100, 3, {100, 100}, -1.f, {100, 100}, {400, 100}}, // stretched when asked
      {1, 5000, 3, {416, 416}, 0.f, {1, 416}, {416, 5000}},    // an extreme shape keeps one column
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << " x " << c.h << " into " << c.target);
    cv::Mat src(c.h, c.w, CV_8UC(c.channels), cv::Scalar::all(7)), dst;
    cv::Size size = c.target;
    resize_ratio(src, dst, &size, c.tolerance, 128);
    EXPECT_EQ(size, c.want);
    ASSERT_EQ(dst.size(), c.target);
    ASSERT_EQ(dst.type(), src.type());
    EXPECT_EQ(cv::countNonZero(dst(cv::Rect({0, 0}, c.fit)).reshape(1) != 7), 0) << "image";
    dst(cv::Rect({0, 0}, c.fit)).setTo(cv::Scalar::all(128));
    EXPECT_EQ(cv::countNonZero(dst.reshape(1) != 128), 0) << "fill";
  }
  // In place.
  cv::Mat wide = filled(400, 100, cv::Scalar(5, 5, 5));
  cv::Size size(50, 50);
  resize_ratio(wide, wide, &size, 0.0f, 1);
  EXPECT_EQ(wide.size(), cv::Size(50, 50));
}

TEST(ResizeRatio, BadInputLeavesTheOutputAlone) {
  cv::Mat src = filled(64, 48, cv::Scalar(1, 2, 3));
  cv::Mat dst = filled(4, 4, cv::Scalar(9, 9, 9));
  const cv::Mat before = dst;
  cv::Size size(0, 416);
  resize_ratio(src, dst, &size, 0.0f, 128);
  EXPECT_EQ(size, cv::Size(0, 416));
  EXPECT_EQ(dst.data, before.data);

  cv::Mat four(48, 64, CV_8UC4);
  size = cv::Size(416, 416);
  EXPECT_THROW(resize_ratio(four, dst, &size, 0.0f, 128), std::runtime_error);
  EXPECT_THROW(resize_ratio(cv::Mat(), dst, &size, 0.0f, 128), std::runtime_error);
  EXPECT_EQ(dst.data, before.data);
}

}  // namespace
