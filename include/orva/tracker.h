// Multi-object tracking: Kalman-filtered boxes associated to detections by optimal assignment.
#pragma once
#include "orva/export.h"
#include <opencv2/core.hpp>
#include <opencv2/video/tracking.hpp>

#include <vector>

#include "orva/data.h"

ORVA_API_BEGIN

// Minimum-cost one-to-one assignment of rows to columns of a matrix of non-negative costs.
// On success `assignment` holds one entry per row (the column, or -1) and the result is the
// total of the assigned costs; on bad input the result is -1.0 and `assignment` is untouched.
float solveAssignment(std::vector<std::vector<float>>& cost, std::vector<int>& assignment);

namespace ORVA {

class Tracker {
 public:
  // One track: a constant-velocity filter over (cx, cy, area, aspect) and its counters.
  class KalmanTracker {
   public:
    KalmanTracker(int id, DetectObj& det);
    cv::Rect_<float> predict();
    void update(DetectObj& det);
    void getState(DetectObj& out);
    static cv::Rect_<float> bbox(float cx, float cy, float s, float r);

    bool active;  // latched once the track has been confirmed
    int miss;     // frames since the last accepted detection
    int hit;      // consecutive frames with an accepted detection

   private:
    cv::KalmanFilter _kf;
    int _cid;
    int _oid;
    float _prob;
  };

  Tracker(int maxMiss, int minHit, float iouTh);
  ~Tracker();
  void reset();
  // Replaces this frame's detections in `objs` with the tracked objects to report.
  // Only the frame's size is used.
  void process(cv::Mat& frame, DetectObjList& objs);

 protected:
  std::vector<KalmanTracker> _ktracker;
  int _idSeq;
  int _maxMiss;
  int _minHit;
  float _iouTh;
};

}  // namespace ORVA

ORVA_API_END
