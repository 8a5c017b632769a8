// One activation function applied element by element as a layer of its own.
#pragma once
#include "orva/activation.h"
#include "orva/layer.h"

namespace ORVA {

class ActivationLayer : public Layer {
 public:
  ActivationLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~ActivationLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  int _acttype = 3;  // linear
  Activation* _activation = nullptr;

 private:
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
