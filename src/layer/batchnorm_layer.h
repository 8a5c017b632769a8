// Per-channel batch normalisation with a bias, as a layer of its own.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class BatchnormLayer : public Layer {
 public:
  BatchnormLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~BatchnormLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int loadWeight(FILE* fp, bool quant) override;
  int saveWeight(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void update(int batch, float rate, float momentum, float decay) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  Batchnorm* _bn = nullptr;

 private:
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
