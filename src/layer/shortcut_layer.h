// Residual connection: alpha * own input + beta * an earlier layer's output (resampled by a
// whole-number ratio when the sizes differ), then an optional activation.
#pragma once
#include "orva/activation.h"
#include "orva/layer.h"

namespace ORVA {

class ShortcutLayer : public Layer {
 public:
  ShortcutLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~ShortcutLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  int _from = 0;  // absolute index of the added layer; negative: the network input
  int _acttype = -1;
  float _alpha = 1;
  float _beta = 1;
  Activation* _activation = nullptr;

 private:
  Network* _net = nullptr;
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
