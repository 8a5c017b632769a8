// Point-detection head: every grid cell split into subdiv x subdiv sub-cells, each with an
// objectness and class scores, giving a class map finer than the grid.
#pragma once
#include "layer/detection_head.h"

namespace ORVA {

class HeatmapLayer : public DetectionHead {
 public:
  HeatmapLayer(int mode, void* handle) : DetectionHead(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void forward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

  // One image's output (host floats) into best class and score per sub-cell on the fine
  // grid, row-major, (subdiv x height) rows of (subdiv x width); scores below thresh are 0.
  virtual void getHeatmap(float* output, float thresh, float* probs, int* classes);
  virtual int getHeatmapOutputNum() { return _in_w * _in_h * _anchors; }

  int _entry_index(int b, int location, int entry) const {
    const int wh = _in_w * _in_h;
    return _entry_index(b, location / wh, location % wh, entry);
  }
  int _entry_index(int b, int n, int loc, int entry) const {
    return b * _outputs + (n * (1 + _classes) + entry) * _in_w * _in_h + loc;
  }

  int _subdiv = 1;
  float _thresh = 0.05f;

 protected:
  void _activateGradient() override;
  void _trainingPass(int batch, const float* truth);
};

}  // namespace ORVA
