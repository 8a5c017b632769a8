// CenterNet detection head ("centernet"): its input holds `classes` heat-map channels, then
// four box channels: the distances from each cell to the box's left, top, right and bottom
// edges in units of `scale` input pixels. Forward applies the logistic function to the heat
// maps on the device; decoding on the host keeps the cells whose score is the maximum of its
// peak x peak neighbourhood, the best `topk` of them, each with the box
// (stride i - scale l, stride j - scale t, stride i + scale r, stride j + scale b) for the cell
// in column i, row j. It is an inference head: backward passes no gradient.
#pragma once
#include "orva/data.h"
#include "orva/layer.h"

namespace ORVA {

class CenternetLayer : public Layer {
 public:
  CenternetLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int loadWeight(FILE* fp, bool quant) override { return 0; }
  int saveConfig(FILE* fp) override;
  int saveWeight(FILE* fp) override { return 0; }
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override {}
  void update(int batch, float rate, float momentum, float decay) override {}
  void _makeLayer(bool quant, bool fast) override;

  // One image's output (host floats) into topk candidates, best first: normalised centre
  // boxes, scores and classes; slots past the last peak above thresh get score 0.
  void getRegionBox(const float* output, float thresh, float* probs, int* classes, BBox* boxes) const;
  int getRegionOutputNum() const { return _topk; }
  int getClassNum() const { return _classes; }

  int _classes = 80;
  int _stride = 4;
  int _peak = 3;
  int _topk = 100;
  float _scale = 1;

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
