// Learned activation: a rectifier whose negative slope is a weight of each channel, trained
// with the network (a parametric leaky rectifier).
#pragma once
#include "orva/layer.h"

namespace ORVA {

class DynActivationLayer : public Layer {
 public:
  DynActivationLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int loadWeight(FILE* fp, bool quant) override;
  int saveConfig(FILE* fp) override;
  int saveWeight(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void update(int batch, float rate, float momentum, float decay) override;
  void _makeLayer(bool quant, bool fast) override;

  float _slope = 0.25f;  // starting slope of every channel

 private:
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
