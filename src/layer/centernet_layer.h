// CenterNet detection head ("centernet"): its input holds `classes` heat-map channels, then
// four box channels: the distances from each cell to the box's left, top, right and bottom
// edges in units of `scale` input pixels. Forward applies the logistic function to the heat
// maps on the device; decoding on the host keeps the cells whose score is the maximum of its
// peak x peak neighbourhood, the best `topk` of them, each with the box
// (stride i - scale l, stride j - scale t, stride i + scale r, stride j + scale b) for the cell
// in column i, row j. It is an inference head: backward passes no gradient.
#pragma once
#include "layer/detection_head.h"

namespace ORVA {

class CenternetLayer : public DetectionHead {
 public:
  CenternetLayer(int mode, void* handle) : DetectionHead(mode, handle) { _classes = 80; }

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

  // One image's output (host floats) into topk candidates, best first: normalised centre
  // boxes, scores and classes; slots past the last peak above thresh get score 0.
  void getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) override;
  int getRegionOutputNum() override { return _topk; }

  int _stride = 4;
  int _peak = 3;
  int _topk = 100;
  float _scale = 1;

 protected:
  // No loss: nothing reaches the layers below.
  void _activateGradient() override {}

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
