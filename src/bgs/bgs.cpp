// The background-model interface: every operation is a no-op until a model overrides it.
#include "orva/bgs.h"

namespace ORVA {

BGS::BGS(int w, int h, int c) : _w(w), _h(h), _c(c) {}

BGS::~BGS() {}

bool BGS::init(cv::Mat&, int) { return false; }

bool BGS::update(cv::Mat&, float) { return false; }

cv::Mat BGS::getBackground() { return cv::Mat(); }

cv::Mat BGS::getForeground(cv::Mat&) { return cv::Mat(); }

// Bytes are walked as _w * _c per row, so anything but 8-bit samples of the model's
// geometry would be misread.
bool BGS::_matches(const cv::Mat& frame) const {
  return frame.cols == _w && frame.rows == _h && frame.channels() == _c && frame.depth() == CV_8U;
}

}  // namespace ORVA
