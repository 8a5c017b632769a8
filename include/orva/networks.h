// Task networks: classification, grouped classification, detection and heat maps on top of
// the general network, and the box helpers they share with callers.
#pragma once
#include "orva/export.h"
#include <map>
#include <vector>

#include <opencv2/core.hpp>

#include "orva/data.h"
#include "orva/orva.h"

ORVA_API_BEGIN

namespace ORVA {

class DetectionHead;

// Overlap of two centre-based boxes (x, y centre; w, h full size); 0 when they are apart.
float box_iou(const BBox& a, const BBox& b);
// IoU less beta x squared centre distance over the squared diagonal of the enclosing box;
// never negative.
float box_iou_dist(const BBox& a, const BBox& b, float beta);
// Hard suppression of n candidates: rank receives the candidates by descending score; of the
// ones above thresh, each whose IoU with a better-scored one exceeds nms gets score 0 and
// falls behind the survivors. nms >= 1 only sorts.
void box_nms(BBox* boxes, float* prob, int* rank, int n, float nms, float thresh);
// Greedy hard suppression within each class: in rank order, a candidate still standing drops
// every later one of its class cid overlapping it by more than nms. With beta >= 0 the overlap
// is box_iou_dist(.., beta) rather than the IoU.
void box_nms_class(BBox* boxes, float* prob, const int* cid, int* rank, int n, float nms, float thresh, float beta);
// Soft suppression: a candidate is dropped when exp(-2 IoU^2) x its score, against any
// better-scored candidate above thresh, falls below thresh; survivors keep their scores.
void box_nms_soft(BBox* boxes, float* prob, int* rank, int n, float thresh);
// Candidates in rank order while their score exceeds thresh, from network-input coordinates
// (letterboxed nw x nh) to pixels of a W x H frame; boxes[r] becomes pixel centre and half
// sizes. objs is cleared first.
void box_correct(DetectObjList& objs, float* prob, int* cid, BBox* boxes, int* rank, int n, float thresh, int W,
                 int H, int nw, int nh);

class ClassifyNetwork : public Network {
 public:
  ClassifyNetwork(int mode, int batch, int gpu_index) : Network(mode, batch, gpu_index) {}
  // Best class (topk <= 1) or the topk best of each frame, each kept when its score reaches
  // thresh. Returns the network output, or null when n <= 0 (lists untouched).
  float* classify(ClassIdList* lists, cv::Mat* frames, float thresh, int topk, int n);
  // The same with the n images in one matrix (the batch form of predict).
  float* classify(ClassIdList* lists, cv::Mat& frames, float thresh, int topk, int n);
  int getClassNum() { return getOutputs(); }

 protected:
  void _classify(const float* output, ClassIdList* lists, float thresh, int topk, int n);
};

class GroupClassifyNetwork : public Network {
 public:
  GroupClassifyNetwork(int mode, int batch, int gpu_index) : Network(mode, batch, gpu_index) {}
  // The top layer must be a softmax layer with a group map.
  int load(const char* path_cfg, const char* path_weight, bool quant = false, bool fast = false) override;
  int load(const char* path_net, bool quant = false, bool fast = false) override;
  int getGroups() { return _groups; }
  int* getGroupMap() { return _gmap; }
  // One winner per group (index within the group, score) for each of n images.
  float* classify(ClassIdList* lists, cv::Mat* frames, int n);
  float* classify(ClassIdList* lists, cv::Mat& frames, int n);
  // The same from scores smoothed into the caller's history (n x outputs floats):
  // history = (1 - alpha) history + alpha output.
  float* classify(ClassIdList* lists, cv::Mat* frames, float* history, float alpha, int n);
  float* classify(ClassIdList* lists, cv::Mat& frames, float* history, float alpha, int n);

  int _groups = 0;
  int* _gmap = nullptr;

 protected:
  // A layer of equal groups (stored without a map) gets one made here.
  std::vector<int> _equal_map;
  void _takeGroups();
  float* _choose(float* output, ClassIdList* lists, float* history, float alpha, int n);
};

class DetectNetwork : public Network {
 public:
  DetectNetwork(int mode, int batch, int gpu_index) : Network(mode, batch, gpu_index) {}
  ~DetectNetwork() override;
  // The top layer must be a region, qregion, detobj or yolo layer; a yolo top layer brings
  // every yolo layer of the network in, all of them decoded before one suppression.
  int load(const char* path_cfg, const char* path_weight, bool quant = false, bool fast = false) override;
  int load(const char* path_net, bool quant = false, bool fast = false) override;
  void resize(int w, int h) override;
  int getClassNum();
  // Threshold (at least 0.001) and suppression value for images carrying this key; nms <= 0
  // selects soft suppression.
  void setParameter(unsigned int key, float thresh, float nms);

  // One frame; size is the frame whose pixels the boxes are wanted in.
  float* detect(DetectObjList& objs, cv::Mat& frame, cv::Size& size, float thresh, float nms);
  void getDetect(float* output, DetectObjList& objs, cv::Mat& frame, cv::Size& size, float thresh, float nms);
  // n frames, each with its own size and parameter key (null keys: 0.3 and 0.4 for all);
  // the images are decoded in parallel. Null when n < 1.
  float* detect(DetectObjList* objs, cv::Mat* frames, cv::Size* sizes, unsigned int* keys, int n);
  void getDetect(float* output, DetectObjList* objs, cv::Mat* frames, cv::Size* sizes, unsigned int* keys, int n);
  // Scores of class cid (0..255) on a grid of twice the head's resolution.
  void getHeatmap(float* output, cv::Mat& map, int cid, float thresh);
  void getHeatmap(float* output, cv::Mat* maps, int* cids, unsigned int* keys, int n);

  std::map<unsigned int, float> _thresh;
  std::map<unsigned int, float> _nms;
  float* _prob = nullptr;
  int* _cid = nullptr;
  int* _rank = nullptr;
  int _gridsz = 0;
  BBox* _box = nullptr;

 protected:
  // Heads decoded per image, the top layer last; the others' outputs are pulled to _head_out
  // (one full batch of each, in this order) before decoding.
  std::vector<DetectionHead*> _heads;
  std::vector<float> _head_out;
  std::vector<Ftype> _head_stage;
  // Class-wise suppression (every yolo network) and the overlap's centre-distance weight
  // (diounms; negative for the plain IoU).
  bool _classwise = false;
  float _beta = -1;
  void _pullHeads(int n);
  void _decode(const float* output, int k, float* prob, int* cid, BBox* box);
  void _makeDetect();
  void _freeDetect();
  // Image k of a batch: its slices of the candidate arrays.
  void _detectOne(const float* output, int k, DetectObjList& objs, const cv::Size& size, float thresh, float nms);
  void _heatmapOne(const float* output, int k, cv::Mat& map, int cid, float thresh);
  void _keyParams(const unsigned int* keys, int k, float* thresh, float* nms) const;
};

class HeatmapNetwork : public Network {
 public:
  HeatmapNetwork(int mode, int batch, int gpu_index) : Network(mode, batch, gpu_index) {}
  ~HeatmapNetwork() override;
  // The top layer must be a heatmap layer.
  int load(const char* path_cfg, const char* path_weight, bool quant = false, bool fast = false) override;
  int load(const char* path_net, bool quant = false, bool fast = false) override;
  void resize(int w, int h) override;
  int getClassNum();
  void setParameter(unsigned int key, float thresh);
  // Probability of class cid per sub-cell, scaled to 0..255, on the fine grid.
  void getHeatmap(float* output, cv::Mat& map, int cid, float thresh);
  void getHeatmap(float* output, cv::Mat* maps, int* cids, unsigned int* keys, int n);

  std::map<unsigned int, float> _thresh;
  float* _prob = nullptr;
  int* _cid = nullptr;
  int _gridsz = 0;

 protected:
  void _makeHeatmap();
  void _freeHeatmap();
  void _heatmapOne(const float* output, int k, cv::Mat& map, int cid, float thresh);
};

}  // namespace ORVA

ORVA_API_END
