// Dominant-colour classification: vote the pixels of a box into hue/saturation/value cells and
// name the two most voted cells.
#include <opencv2/imgproc.hpp>

#include "orva/image.h"

namespace ORVA {

namespace {

// Indexed by V >> 4 and S >> 4: four levels each, uneven so that very dark and weakly
// saturated pixels fall into the grey levels.
const unsigned char kValueLevel[16] = {0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 3};
const unsigned char kSatLevel[16] = {0, 0, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3};

constexpr int kBands = 12;  // 15 OpenCV hue units (30 degrees) each
constexpr int kCells = kBands * 16;

// Colour code per cell (band * 16 + sat level * 4 + value level): 0 dark, 1 light grey,
// 2..7 six hue families; band 11 wraps round to red with band 0.
struct ColorTable {
  unsigned char code[kCells];
  ColorTable() {
    static const unsigned char kHueCode[kBands] = {2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7, 2};
    const unsigned char H = 255;  // stands for "the band's hue code"
    const unsigned char kCellClass[16] = {0, 0, 1, 1, 0, 0, 1, H, 0, H, H, H, H, H, H, H};
    for (int band = 0; band < kBands; band++)
      for (int cell = 0; cell < 16; cell++)
        code[band * 16 + cell] = kCellClass[cell] == H ? kHueCode[band] : kCellClass[cell];
  }
};
const ColorTable kColorTable;

}  // namespace

int classifyColor(cv::Mat& img, cv::Rect_<int> box, float scale) {
  const int w = (int)(box.width * scale), h = (int)(box.height * scale);
  const int x = box.x + box.width / 2 - w / 2, y = box.y + box.height / 2 - h / 2;
  cv::Mat thumb;
  cv::resize(img(cv::Rect(x, y, w, h)), thumb, cv::Size(32, 32), 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(thumb, thumb, cv::COLOR_BGR2HSV);

  int votes[kCells] = {0};
  for (int r = 0; r < thumb.rows; r++) {
    const unsigned char* p = thumb.ptr<unsigned char>(r);
    for (int c = 0; c < thumb.cols; c++, p += 3)
      votes[(p[0] / 15) * 16 + kSatLevel[p[1] >> 4] * 4 + kValueLevel[p[2] >> 4]]++;
  }

  // Strictly greater: on a tie the earlier cell stays, and "second" starts as cell 0 with no
  // votes so a one-colour box reports cell 0's code as its second colour.
  int first = 0, firstCount = votes[0];
  int second = 0, secondCount = 0;
  for (int cell = 1; cell < kCells; cell++) {
    if (votes[cell] > firstCount) {
      second = first;
      secondCount = firstCount;
      first = cell;
      firstCount = votes[cell];
    } else if (votes[cell] > secondCount) {
      second = cell;
      secondCount = votes[cell];
    }
  }
  return (kColorTable.code[second] << 8) | kColorTable.code[first];
}

}  // namespace ORVA
