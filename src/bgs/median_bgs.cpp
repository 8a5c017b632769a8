// Running-median background in 16-bit fixed point (grey level x 128).
#include <cstdlib>

#include "orva/bgs.h"
#include "orva/util.h"

namespace ORVA {

namespace {

// One row of the update. Stepping down is undone when it would overshoot the frame, while
// stepping up may overshoot, so on a still scene an element settles in [P, P + a) instead of
// oscillating around P by a full step every frame.
// Written as selects on 16-bit values so the compiler vectorises it (8 or 16 lanes); no
// overflow: b - a is kept only when it stays >= P >= 0, b + a only when b < P <= 32640.
void update_row(short* __restrict bg, const unsigned char* __restrict fr, int n, int a) {
  const short step = (short)a;
  for (int i = 0; i < n; i++) {
    const short P = (short)(fr[i] << 7);
    const short b = bg[i];
    const short down = (short)(b - step);
    const short up = (short)(b + step);
    short r = down >= P ? down : b;
    r = b < P ? up : r;
    bg[i] = r;
  }
}

}  // namespace

MedianBGS::MedianBGS(int w, int h, int c) : BGS(w, h, c), _alpha(128), _alpha_min(0) {}

void MedianBGS::setParameter(int alphaMin) {
  _alpha = 128;
  _alpha_min = alphaMin;
}

bool MedianBGS::init(cv::Mat& frame, int value) {
  if ((_c != 1 && _c != 3) || _w <= 0 || _h <= 0) {
    ORVA_ERROR("unsupported model geometry: %d x %d, %d channels (1 or 3 supported)", _w, _h, _c);
    return false;
  }
  if (value < 0 && !_matches(frame)) return false;
  _alpha = 128;
  const int type = _c == 1 ? CV_16SC1 : CV_16SC3;
  if (value >= 0) {
    _bimg = cv::Mat(_h, _w, type, cv::Scalar::all(cv::saturate_cast<short>(value * 128)));
    return true;
  }
  // Starting half way to mid-grey keeps a first frame with a passing object from being
  // taken for the background outright.
  cv::Mat bimg(_h, _w, type);
  const int n = _w * _c;
  for (int y = 0; y < _h; y++) {
    const unsigned char* fr = frame.ptr<unsigned char>(y);
    short* bg = bimg.ptr<short>(y);
    for (int i = 0; i < n; i++) bg[i] = (short)((fr[i] + 128) * 64);
  }
  _bimg = bimg;
  return true;
}

bool MedianBGS::update(cv::Mat& frame, float) {
  if (_bimg.empty() || !_matches(frame)) return false;
  const int n = _w * _c;
  if (frame.isContinuous() && _bimg.isContinuous()) {
    update_row(_bimg.ptr<short>(), frame.ptr<unsigned char>(), n * _h, _alpha);
  } else {
    for (int y = 0; y < _h; y++) update_row(_bimg.ptr<short>(y), frame.ptr<unsigned char>(y), n, _alpha);
  }
  if (_alpha_min < _alpha) _alpha--;
  return true;
}

cv::Mat MedianBGS::getBackground() {
  if (_bimg.empty()) return cv::Mat();
  cv::Mat out(_h, _w, _c == 1 ? CV_8UC1 : CV_8UC3);
  const int n = _w * _c;
  for (int y = 0; y < _h; y++) {
    const short* bg = _bimg.ptr<short>(y);
    unsigned char* o = out.ptr<unsigned char>(y);
    for (int i = 0; i < n; i++) o[i] = cv::saturate_cast<unsigned char>(bg[i] >> 7);
  }
  return out;
}

cv::Mat MedianBGS::getForeground(cv::Mat& frame) {
  if (_bimg.empty() || !_matches(frame)) return cv::Mat();
  cv::Mat out(_h, _w, _c == 1 ? CV_8UC1 : CV_8UC3);
  const int n = _w * _c;
  for (int y = 0; y < _h; y++) {
    const short* bg = _bimg.ptr<short>(y);
    const unsigned char* fr = frame.ptr<unsigned char>(y);
    unsigned char* o = out.ptr<unsigned char>(y);
    for (int i = 0; i < n; i++) o[i] = (unsigned char)std::abs((int)fr[i] - (bg[i] >> 7));
  }
  return out;
}

}  // namespace ORVA
