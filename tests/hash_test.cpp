// Perceptual hash: sizes per mode, bit layout of the encoders, comparison.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "orva/image.h"

namespace {

using namespace ORVA;

const struct {
  HashMode mode;
  int bytes;
} kModes[] = {{GRAY_32BIT, 4}, {GRAY_64BIT, 8}, {RGB_96BIT, 12},  {RGB_192BIT, 24},
              {YUV_96BIT, 12}, {YUV_128BIT, 16}, {HSV_96BIT, 12}, {HSV_128BIT, 16}};

std::vector<unsigned char> bytes_of(const cv::Mat& h) { return std::vector<unsigned char>(h.datastart, h.dataend); }

// A grey side x side image (a resize to its own size is exact), 100 everywhere except
// one brighter pixel.
cv::Mat grey_with_spot(int side, int row, int col) {
  cv::Mat m(side, side, CV_8UC3, cv::Scalar::all(100));
  m.at<cv::Vec3b>(row, col) = cv::Vec3b(200, 200, 200);
  return m;
}

TEST(ImageHash, UniformImagesGiveZeroHashesOfTheModeSize) {
  cv::Mat flat(480, 640, CV_8UC3, cv::Scalar(30, 140, 220));
  for (auto& m : kModes) {
    cv::Mat h;
    computeHash(flat, h, m.mode);
    SCOPED_TRACE(m.mode);
    ASSERT_EQ(h.type(), CV_8UC1);
    ASSERT_EQ(h.rows, 1);
    ASSERT_EQ(h.cols, m.bytes);
    EXPECT_EQ(cv::countNonZero(h), 0);
  }
  // An empty source or an unknown mode leaves no hash behind.
  cv::Mat h(1, 4, CV_8UC1);
  computeHash(cv::Mat(), h, GRAY_64BIT);
  EXPECT_TRUE(h.empty());
  computeHash(flat, h, (HashMode)33);
  EXPECT_TRUE(h.empty());
  EXPECT_THROW(computeHash(cv::Mat(8, 8, CV_8UC1), h, GRAY_64BIT), cv::Exception);
}

TEST(ImageHash, EncoderBitLayout) {
  cv::Mat h;
  // 8 x 8: byte k = row k, bit j = column j; the mean is rounded, and only values strictly
  // above it count (the 63 pixels at 100 sit below the mean of 101).
  computeHash(grey_with_spot(8, 5, 3), h, GRAY_64BIT);
  EXPECT_EQ(bytes_of(h), (std::vector<unsigned char>{0, 0, 0, 0, 0, 1 << 3, 0, 0}));

  // 6 x 6: corners skipped, so row 0 column 1 is bit 0 and row 1 column 0 is bit 4.
  computeHash(grey_with_spot(6, 0, 1), h, GRAY_32BIT);
  EXPECT_EQ(bytes_of(h), (std::vector<unsigned char>{1, 0, 0, 0}));
  computeHash(grey_with_spot(6, 1, 0), h, GRAY_32BIT);
  EXPECT_EQ(bytes_of(h), (std::vector<unsigned char>{1 << 4, 0, 0, 0}));
  // Last value: row 5 column 4.
  computeHash(grey_with_spot(6, 5, 4), h, GRAY_32BIT);
  EXPECT_EQ(bytes_of(h), (std::vector<unsigned char>{0, 0, 0, 0x80}));
  // A bright corner neither sets a bit nor moves the mean.
  for (cv::Point corner : {cv::Point(0, 0), cv::Point(5, 0), cv::Point(0, 5), cv::Point(5, 5)}) {
    cv::Mat m = grey_with_spot(6, 2, 2);
    m.at<cv::Vec3b>(corner) = cv::Vec3b(255, 255, 255);
    computeHash(m, h, GRAY_32BIT);
    EXPECT_EQ(bytes_of(h), (std::vector<unsigned char>{0, 1 << 4, 0, 0}));  // row 2 col 2 = value 12
  }
}

TEST(ImageHash, ChannelPartsFollowEachOtherInOrder) {
  cv::Mat h;
  // Only the red channel varies: parts 0 and 1 (blue, green) are zero.
  cv::Mat m(8, 8, CV_8UC3, cv::Scalar(50, 50, 50));
  m.at<cv::Vec3b>(0, 0)[2] = 250;
  computeHash(m, h, RGB_192BIT);
  std::vector<unsigned char> expected(24, 0);
  expected[16] = 1;
  EXPECT_EQ(bytes_of(h), expected);

  // Grey content has neutral chroma (Cr = Cb = 128): all of it lands in the luma part.
  cv::Mat ramp(8, 8, CV_8UC3);
  for (int r = 0; r < 8; r++)
    for (int c = 0; c < 8; c++) ramp.at<cv::Vec3b>(r, c) = cv::Vec3b::all((uchar)(c * 30));
  for (HashMode mode : {YUV_96BIT, YUV_128BIT}) {
    computeHash(ramp, h, mode);
    std::vector<unsigned char> b = bytes_of(h);
    for (int k = 0; k < 8; k++) EXPECT_EQ(b[k], 0xF0) << "row " << k << ": right half brighter";
    for (size_t k = 8; k < b.size(); k++) EXPECT_EQ(b[k], 0);
  }
}

TEST(ImageHash, CompareCountsDifferingBits) {
  // Structure at thumbnail scale: a ramp, a bright disc, a dark block.
  cv::Mat img(240, 320, CV_8UC3);
  for (int x = 0; x < img.cols; x++) img.col(x).setTo(cv::Scalar::all(x * 255 / img.cols));
  cv::circle(img, cv::Point(80, 60), 40, cv::Scalar::all(255), cv::FILLED);
  cv::rectangle(img, cv::Rect(200, 150, 100, 70), cv::Scalar::all(0), cv::FILLED);
  cv::Mat h;
  computeHash(img, h, GRAY_64BIT);
  EXPECT_EQ(compareHash(h, h), 0.0f);
  cv::Mat inverse = ~h;
  EXPECT_EQ(compareHash(h, inverse), 1.0f);
  cv::Mat one = h.clone();
  one.at<unsigned char>(3) ^= 0x11;
  EXPECT_FLOAT_EQ(compareHash(h, one), 2.0f / 64);

  // A near-duplicate stays close; a different picture does not.
  cv::Mat noisy = img.clone(), noise(img.size(), CV_8UC3);
  cv::randu(noise, 0, 4);
  noisy += noise;
  cv::Mat hn, hf;
  computeHash(noisy, hn, GRAY_64BIT);
  cv::Mat flipped;
  cv::flip(img, flipped, -1);
  computeHash(flipped, hf, GRAY_64BIT);
  EXPECT_LT(compareHash(h, hn), 0.1f);
  EXPECT_GT(compareHash(h, hf), 0.25f);

  cv::Mat h12, h16;
  computeHash(img, h12, YUV_96BIT);
  computeHash(img, h16, YUV_128BIT);
  EXPECT_EQ(compareHash(h12, h16), -1.0f);
  EXPECT_EQ(compareHash(cv::Mat(), cv::Mat()), -1.0f);
  // Whole words only: a difference in the tail past the last multiple of four is not seen.
  cv::Mat a(1, 5, CV_8UC1, cv::Scalar(0)), b = a.clone();
  b.at<unsigned char>(4) = 0xFF;
  EXPECT_EQ(compareHash(a, b), 0.0f);
}

}  // namespace
