// Darknet's detection head: the anchors named by `mask` out of the network's anchor list
// (pixels of the network input), logistic centres, objectness and independent class scores
// on the device; decoding and the training loss on the host.
#pragma once
#include "layer/detection_head.h"

namespace ORVA {

class YoloLayer : public DetectionHead {
 public:
  enum IouLoss { kMse = 0, kGiou = 1, kCiou = 2 };
  enum NmsKind { kGreedyNms = 0, kDiouNms = 1 };

  YoloLayer(int mode, void* handle) : DetectionHead(mode, handle) {}
  ~YoloLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

  int getRegionOutputNum() override { return _in_w * _in_h * _anchors; }
  void getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) override;
  // Box of mask anchor n at cell (i, j) of one image's output, normalised to the input.
  BBox decode(const float* out, int n, int i, int j) const;

  int _entry_index(int b, int n, int loc, int entry) const {
    return b * _outputs + (n * (5 + _classes) + entry) * _in_w * _in_h + loc;
  }

  int _total = 1;             // anchors in the network's list (key "num")
  int _new_coords = 0;        // inputs already logistic; size (2 t)^2 x anchor
  int _iou_loss = kMse;
  int _nms_kind = kGreedyNms;
  float _scale_xy = 1;
  float _ignore_thresh = 0.5f;
  float _truth_thresh = 1;
  float _beta_nms = 0.6f;
  float _iou_normalizer = 1;
  float _cls_normalizer = 1;
  int _net_w = 0, _net_h = 0;  // network input the anchors are measured in
  float* _anchor = nullptr;     // 2 x _total
  int* _mask = nullptr;         // _anchors indexes into _anchor

 protected:
  void _activateGradient() override;

 private:
  void _takeNetSize(const InputParams& params);
  void _trainingPass(int batch, const float* truth);
};

}  // namespace ORVA
