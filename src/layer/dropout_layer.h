// Identity at inference; in training each value is dropped with probability p and the kept
// ones are scaled by 1 / (1 - p), so the expected output equals the input.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class DropoutLayer : public Layer {
 public:
  DropoutLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~DropoutLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  float _probability = 0.5f;
  float _scale = 2.f;
  float* _rand = nullptr;  // training: the uniform draw of the last pass, batch * inputs floats

 private:
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
