// Perceptual image hash: a few-pixel thumbnail per channel, one bit per pixel against the
// channel mean.
#include <opencv2/imgproc.hpp>

#include <cstring>

#include "orva/image.h"

namespace ORVA {

namespace {

// Each encoder reads channel `ch` of an interleaved thumbnail (stride = channel count) and
// emits bits least significant first: 1 where the value is strictly above the rounded mean.

void encode8x8(const cv::Mat& t, int ch, unsigned char* out) {
  const int stride = t.channels();
  const unsigned char* p = t.ptr<unsigned char>() + ch;
  int sum = 0;
  for (int i = 0; i < 64; i++) sum += p[i * stride];
  const int mean = (sum + 32) >> 6;
  for (int k = 0; k < 8; k++) {
    unsigned char byte = 0;
    for (int j = 0; j < 8; j++) byte |= (p[(k * 8 + j) * stride] > mean) << j;
    out[k] = byte;
  }
}

// The corners are skipped: 32 cells make a 4-byte code, and corners are where borders,
// vignetting and overlays sit.
void encode6x6(const cv::Mat& t, int ch, unsigned char* out) {
  const int stride = t.channels();
  const unsigned char* p = t.ptr<unsigned char>() + ch;
  int values[32];
  int n = 0, sum = 0;
  for (int r = 0; r < 6; r++) {
    for (int c = 0; c < 6; c++) {
      if ((r == 0 || r == 5) && (c == 0 || c == 5)) continue;
      values[n] = p[(r * 6 + c) * stride];
      sum += values[n++];
    }
  }
  const int mean = (sum + 16) >> 5;
  memset(out, 0, 4);
  for (int i = 0; i < 32; i++) out[i >> 3] |= (values[i] > mean) << (i & 7);
}

void encode4x4(const cv::Mat& t, int ch, unsigned char* out) {
  const int stride = t.channels();
  const unsigned char* p = t.ptr<unsigned char>() + ch;
  int sum = 0;
  for (int i = 0; i < 16; i++) sum += p[i * stride];
  const int mean = (sum + 8) >> 4;
  memset(out, 0, 2);
  for (int i = 0; i < 16; i++) out[i >> 3] |= (p[i * stride] > mean) << (i & 7);
}

// Encoder for a thumbnail side; returns the bytes it writes.
int encode(const cv::Mat& t, int side, int ch, unsigned char* out) {
  switch (side) {
    case 8: encode8x8(t, ch, out); return 8;
    case 6: encode6x6(t, ch, out); return 4;
    default: encode4x4(t, ch, out); return 2;
  }
}

cv::Mat thumbnail(const cv::Mat& src, int side) {
  cv::Mat t;
  cv::resize(src, t, cv::Size(side, side), 0, 0, cv::INTER_LINEAR);
  return t;
}

}  // namespace

void computeHash(const cv::Mat& src, cv::Mat& hash, HashMode mode) {
  hash.release();
  if (src.empty()) return;
  CV_CheckTypeEQ(src.type(), CV_8UC3, "computeHash takes an 8-bit BGR image");

  unsigned char out[24];
  int bytes = 0;
  switch (mode) {
    case GRAY_32BIT:
    case GRAY_64BIT: {
      const int side = mode == GRAY_32BIT ? 6 : 8;
      cv::Mat t = thumbnail(src, side);
      cv::cvtColor(t, t, cv::COLOR_BGR2GRAY);
      bytes = encode(t, side, 0, out);
      break;
    }
    case RGB_96BIT:
    case RGB_192BIT: {
      const int side = mode == RGB_96BIT ? 6 : 8;
      cv::Mat t = thumbnail(src, side);
      for (int ch = 0; ch < 3; ch++) bytes += encode(t, side, ch, out + bytes);
      break;
    }
    case YUV_96BIT:
    case YUV_128BIT:
    case HSV_96BIT:
    case HSV_128BIT: {
      // Full detail for luma (or hue), a coarser grid for the other two channels.
      const bool yuv = mode == YUV_96BIT || mode == YUV_128BIT;
      const int side2 = (mode == YUV_96BIT || mode == HSV_96BIT) ? 4 : 6;
      cv::Mat t = thumbnail(src, 8);
      cv::cvtColor(t, t, yuv ? cv::COLOR_BGR2YCrCb : cv::COLOR_BGR2HSV);
      bytes = encode(t, 8, 0, out);
      cv::resize(t, t, cv::Size(side2, side2), 0, 0, cv::INTER_LINEAR);
      bytes += encode(t, side2, 1, out + bytes);
      bytes += encode(t, side2, 2, out + bytes);
      break;
    }
    default:
      return;
  }
  hash.create(1, bytes, CV_8UC1);
  memcpy(hash.ptr<unsigned char>(), out, bytes);
}

float compareHash(const cv::Mat& a, const cv::Mat& b) {
  const size_t elements = a.total();
  if (elements != b.total() || elements == 0) return -1.0f;
  // Hashes are tiny; a non-continuous view is copied rather than walked row by row.
  cv::Mat ca = a.isContinuous() ? a : a.clone();
  cv::Mat cb = b.isContinuous() ? b : b.clone();
  const unsigned char* pa = ca.data;
  const unsigned char* pb = cb.data;
  const size_t words = elements >> 2;
  int bits = 0;
  for (size_t i = 0; i < words; i++) {
    uint32_t wa, wb;
    memcpy(&wa, pa + 4 * i, 4);
    memcpy(&wb, pb + 4 * i, 4);
    bits += __builtin_popcount(wa ^ wb);
  }
  return (float)bits / (float)(elements * 8);
}

}  // namespace ORVA
