// Records shared by the networks, the detection task and the video-analytics tools.
#pragma once
#include "orva/export.h"
#include <opencv2/core.hpp>
#include "orva/float16.h"
#include <vector>

ORVA_API_BEGIN

namespace ORVA {

enum NetworkMode { TEST = 0, TRAIN = 1 };
enum TensorPrecision { FP32 = 4, FP16 = 2, INT8 = 1 };

// Centre and full size; normalised to the network input inside the heads, pixel centre
// and half sizes after conversion to frame coordinates.
struct BBox {
  float x, y, w, h;
};

struct DetectObj {
  int cid;        // class index
  int oid;        // identity: -1 from the detector, set by the tracker
  float prob;     // class score x objectness
  cv::Rect bbox;  // pixels of the caller's frame
};
typedef std::vector<DetectObj> DetectObjList;

struct ClassId {
  int id;
  float prob;
};
typedef std::vector<ClassId> ClassIdList;

struct TaskInput {
  unsigned int id;    // source key, also the detect network's parameter key
  unsigned int tick;  // the caller's frame stamp
  cv::Mat img;
};

struct DetectTaskResult {
  unsigned int id;
  unsigned int tick;
  DetectObjList objs;
};

// Planar float image.
struct Image {
  int w = 0, h = 0, c = 0;
  float* data = nullptr;
};

// Rows of floats, one sample per row.
struct Matrix {
  int rows = 0, cols = 0;
  float** vals = nullptr;
};
// Zeroed rows x cols in one block.
Matrix make_matrix(int rows, int cols);
void free_matrix(Matrix& m);

// One labelled object: class and centre-based box normalised to the image (0..1).
struct BoxLabel {
  int id = 0;
  float x = 0, y = 0, w = 0, h = 0;
};
typedef std::vector<BoxLabel> BoxLabelList;

// A block of training samples: X the network inputs, Y the truth rows, boxes the labels
// each row was made from. shallow: the rows belong to someone else.
struct TData {
  int w = 0, h = 0;
  Matrix X, Y;
  int shallow = 0;
  std::vector<BoxLabelList> boxes;
};
void free_data(TData& d);

}  // namespace ORVA

// Image and tensor conversion. Bytes are interleaved BGR (OpenCV), tensors planar in [0, 1]
// with the channel order reversed (plane 0 is red).
// Copies npix * c * cgroup * batch bytes to `raw` (backend staging) and widens them into dst.
void cvt_cv2data(void* handle, const unsigned char* src, Ftype* dst, unsigned char* raw, int npix, int c,
                 int cgroup, int batch);
// Narrows planar values (x 255, clamped, truncated) into interleaved bytes at dst (host);
// waits for the backend.
void cvt_data2cv(void* handle, const Ftype* src, unsigned char* dst, unsigned char* raw, int npix, int c);
void cvt_cv2image(cv::Mat& m, ORVA::Image& img);
void cvt_image2cv(ORVA::Image& img, cv::Mat& m);

ORVA_API_END
