// Records shared by the networks, the detection task and the video-analytics tools.
#pragma once
#include <opencv2/core.hpp>
#include <vector>

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

}  // namespace ORVA
