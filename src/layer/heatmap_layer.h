// Point-detection head: every grid cell split into subdiv x subdiv sub-cells, each with an
// objectness and class scores, giving a class map finer than the grid.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class HeatmapLayer : public Layer {
 public:
  HeatmapLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~HeatmapLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int loadWeight(FILE* fp, bool quant) override { return 0; }
  int saveConfig(FILE* fp) override;
  int saveWeight(FILE* fp) override { return 0; }
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void update(int batch, float rate, float momentum, float decay) override {}
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  // One image's output (host floats) into best class and score per sub-cell on the fine
  // grid, row-major, (subdiv x height) rows of (subdiv x width); scores below thresh are 0.
  virtual void getHeatmap(float* output, float thresh, float* probs, int* classes);
  virtual int getHeatmapOutputNum() { return _in_w * _in_h * _anchors; }
  virtual int getClassNum() { return _classes; }

  int _entry_index(int b, int location, int entry) const {
    const int wh = _in_w * _in_h;
    return _entry_index(b, location / wh, location % wh, entry);
  }
  int _entry_index(int b, int n, int loc, int entry) const {
    return b * _outputs + (n * (1 + _classes) + entry) * _in_w * _in_h + loc;
  }

  int _subdiv = 1;
  int _classes = 1;
  int _anchors = 1;
  int _softmax = 0;
  int _bg_class = 0;
  float _thresh = 0.05f;
  float _obj_scale = 1;
  float _noobj_scale = 1;
  float _class_scale = 1;
  float* _output_cpu = nullptr;
  float* _delta_cpu = nullptr;
  // Half copy of _delta_cpu on its way to the device (training only).
  Ftype* _delta_stage = nullptr;

 protected:
  void _trainingPass(int batch, const float* truth);
};

}  // namespace ORVA
