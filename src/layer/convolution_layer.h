// Two-dimensional convolution with groups, dilation, optional batch normalisation and an
// activation; an 8-bit inference path when built with quantisation and a threshold.
#pragma once
#include <string>

#include "orva/activation.h"
#include "orva/layer.h"

class ConvPlan;

namespace ORVA {

class ConvolutionLayer : public Layer {
 public:
  ConvolutionLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~ConvolutionLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int loadWeight(FILE* fp, bool quant) override;
  int saveConfig(FILE* fp) override;
  int saveWeight(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void update(int batch, float learning_rate, float momentum, float decay) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  int _kn = 1;
  int _size = 1;
  int _stride = 1;
  int _pad = 0;
  int _groups = 1;
  int _dilation = 1;
  int _acttype = -1;
  int _withbn = 0;
  Activation* _activation = nullptr;
  Batchnorm* _bn = nullptr;
  // Descriptors, chosen algorithms and workspace need of the backend, per batch size.
  ConvPlan* _plan = nullptr;

 protected:
  // Empty when the configuration describes a convolution that can be built, else why not.
  std::string _checkConfig() const;
  void _prepareInt8();

  int _weights_allocated = 0;
};

}  // namespace ORVA
