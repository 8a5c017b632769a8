// Multi-object tracker: one constant-velocity Kalman filter per object, detections assigned
// to predicted boxes by minimum (1 - IoU) cost.
#include "orva/tracker.h"

#include <cmath>
#include <set>

namespace ORVA {

namespace {

// State (cx, cy, s, r, vcx, vcy, vs), measurement (cx, cy, s, r).
constexpr int kStateSize = 7;
constexpr int kMeasureSize = 4;

cv::Mat measurement_of(const cv::Rect& box) {
  cv::Mat z(kMeasureSize, 1, CV_32F);
  float x = (float)box.x, y = (float)box.y, w = (float)box.width, h = (float)box.height;
  z.at<float>(0) = x + w * 0.5f;
  z.at<float>(1) = y + h * 0.5f;
  z.at<float>(2) = w * h;
  z.at<float>(3) = w / h;
  return z;
}

// Nearest integer, ties to even; a box gone non-finite becomes 0 rather than an arbitrary int.
int round_even(float v) { return std::isfinite(v) ? (int)std::nearbyint(v) : 0; }

float area(const cv::Rect_<float>& b) { return b.width * b.height; }

// 1 - IoU, shifted by 1e-5 so that every cost is strictly positive; the gate in process()
// sees the shift.
float overlap_cost(const cv::Rect_<float>& p, const cv::Rect_<float>& d) {
  float left = std::max(p.x, d.x), top = std::max(p.y, d.y);
  float right = std::min(p.x + p.width, d.x + d.width);
  float bottom = std::min(p.y + p.height, d.y + d.height);
  float iw = right - left, ih = bottom - top;
  float inter = (iw > 0 && ih > 0) ? iw * ih : 0.0f;
  float uni = area(p) + area(d) - inter;
  if ((double)uni < 1e-5) return 1.00001f;
  return (float)((double)(1.0f - inter / uni) + 1e-5);
}

}  // namespace

// ---------------------------------------------------------------- KalmanTracker

Tracker::KalmanTracker::KalmanTracker(int id, DetectObj& det)
    : active(false), miss(0), hit(0), _kf(kStateSize, kMeasureSize, 0, CV_32F), _cid(det.cid), _oid(id),
      _prob(det.prob) {
  // Constant velocity for centre and area; the aspect ratio has no velocity.
  _kf.transitionMatrix = (cv::Mat_<float>(kStateSize, kStateSize) << 1, 0, 0, 0, 1, 0, 0,
                          0, 1, 0, 0, 0, 1, 0,
                          0, 0, 1, 0, 0, 0, 1,
                          0, 0, 0, 1, 0, 0, 0,
                          0, 0, 0, 0, 1, 0, 0,
                          0, 0, 0, 0, 0, 1, 0,
                          0, 0, 0, 0, 0, 0, 1);
  cv::setIdentity(_kf.measurementMatrix);
  cv::setIdentity(_kf.processNoiseCov, cv::Scalar::all(1e-2));
  cv::setIdentity(_kf.measurementNoiseCov, cv::Scalar::all(1e-1));
  cv::setIdentity(_kf.errorCovPost, cv::Scalar::all(1));
  cv::Mat z = measurement_of(det.bbox);
  _kf.statePost.setTo(0);
  z.copyTo(_kf.statePost.rowRange(0, kMeasureSize));
}

cv::Rect_<float> Tracker::KalmanTracker::bbox(float cx, float cy, float s, float r) {
  float w = std::sqrt(s * r);
  float h = s / w;
  float x = cx - w * 0.5f;
  float y = cy - h * 0.5f;
  if (x < 0 && cx > 0) x = 0;
  if (y < 0 && cy > 0) y = 0;
  return cv::Rect_<float>(x, y, w, h);
}

cv::Rect_<float> Tracker::KalmanTracker::predict() {
  // A track that missed last frame has broken its run of hits.
  if (miss > 0) hit = 0;
  miss += 1;
  const cv::Mat& p = _kf.predict();
  return bbox(p.at<float>(0), p.at<float>(1), p.at<float>(2), p.at<float>(3));
}

void Tracker::KalmanTracker::update(DetectObj& det) {
  _cid = det.cid;
  miss = 0;
  hit += 1;
  _prob = (_prob + det.prob) * 0.5f;
  _kf.correct(measurement_of(det.bbox));
}

void Tracker::KalmanTracker::getState(DetectObj& out) {
  const cv::Mat& s = _kf.statePost;
  cv::Rect_<float> b = bbox(s.at<float>(0), s.at<float>(1), s.at<float>(2), s.at<float>(3));
  out.bbox = cv::Rect(round_even(b.x), round_even(b.y), round_even(b.width), round_even(b.height));
  out.cid = _cid;
  out.oid = _oid;
  out.prob = _prob;
}

// ---------------------------------------------------------------- Tracker

Tracker::Tracker(int maxMiss, int minHit, float iouTh) : _maxMiss(maxMiss), _minHit(minHit), _iouTh(iouTh) {
  reset();
}

Tracker::~Tracker() {}

void Tracker::reset() {
  _ktracker.clear();
  _idSeq = 0;
}

void Tracker::process(cv::Mat& frame, DetectObjList& objs) {
  const int W = frame.cols, H = frame.rows;

  // A box without area has no aspect ratio: its filter would turn to NaN at once.
  DetectObjList dets;
  dets.reserve(objs.size());
  for (DetectObj& d : objs)
    if (d.bbox.width > 0 && d.bbox.height > 0) dets.push_back(d);

  auto next_id = [this] {
    int id = _idSeq;
    // Stepped unsigned: the signed sum would overflow at 2147483647 before the mask wraps it.
    _idSeq = (int)(((unsigned)_idSeq + 1u) & 0x7FFFFFFFu);
    return id;
  };
  auto report = [&](KalmanTracker& t) {
    DetectObj o{-1, -1, 0.0f, cv::Rect()};
    t.getState(o);
    if (o.bbox.x < 0) o.bbox.x = 0;
    if (o.bbox.y < 0) o.bbox.y = 0;
    if (W <= o.bbox.x + o.bbox.width) o.bbox.width = W - o.bbox.x - 1;
    if (H <= o.bbox.y + o.bbox.height) o.bbox.height = H - o.bbox.y - 1;
    objs.push_back(o);
  };

  std::vector<cv::Rect_<float>> predicted;
  predicted.reserve(_ktracker.size());
  for (size_t i = 0; i < _ktracker.size();) {
    cv::Rect_<float> p = _ktracker[i].predict();
    if (p.x < 0) p.x = 0;
    if (p.y < 0) p.y = 0;
    if (p.x + p.width >= W) p.width = W - p.x - 1;
    if (p.y + p.height >= H) p.height = H - p.y - 1;
    if (p.width > 0 && p.height > 0) {
      predicted.push_back(p);
      i++;
    } else {
      _ktracker.erase(_ktracker.begin() + i);
    }
  }

  objs.clear();
  if (_ktracker.empty()) {
    // Nothing to match against: every detection starts a track and is reported at once,
    // so the first frame of a stream is not lost to the confirmation delay.
    for (DetectObj& d : dets) _ktracker.emplace_back(next_id(), d);
    for (KalmanTracker& t : _ktracker) report(t);
    return;
  }

  const int N = (int)_ktracker.size(), M = (int)dets.size();
  std::vector<std::vector<float>> cost(N, std::vector<float>(M));
  for (int i = 0; i < N; i++)
    for (int j = 0; j < M; j++) cost[i][j] = overlap_cost(predicted[i], cv::Rect_<float>(dets[j].bbox));

  std::vector<int> assignment;
  solveAssignment(cost, assignment);

  std::set<int> unmatchedDets;
  if (N < M) {
    for (int j = 0; j < M; j++) unmatchedDets.insert(j);
    for (int j : assignment)
      if (j >= 0) unmatchedDets.erase(j);
  }

  // The gate deliberately reads 1 - cost (the IoU less the 1e-5 shift), not the IoU itself:
  // an overlap exactly equal to the threshold is rejected.
  for (int i = 0; i < N; i++) {
    int j = assignment[i];
    if (j < 0) continue;
    if (1 - cost[i][j] < _iouTh)
      unmatchedDets.insert(j);
    else
      _ktracker[i].update(dets[j]);
  }

  for (int j : unmatchedDets) _ktracker.emplace_back(next_id(), dets[j]);

  for (size_t i = 0; i < _ktracker.size();) {
    KalmanTracker& t = _ktracker[i];
    if (t.hit >= _minHit) t.active = true;
    if (t.hit != 0 && t.active) report(t);
    if (t.miss > _maxMiss)
      _ktracker.erase(_ktracker.begin() + i);
    else
      i++;
  }
}

}  // namespace ORVA
