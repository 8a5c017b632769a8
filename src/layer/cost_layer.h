// Closes a network for training: compares the previous output with the batch's truth,
// keeps the per-element error and gradient, and hands the scaled gradient back.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class CostLayer : public Layer {
 public:
  CostLayer(int mode, void* handle) : Layer(mode, handle) { type = LAYER_COST; }
  ~CostLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override {}
  void _makeLayer(bool quant, bool fast) override;

  // Name of a loss type id, null for an unknown one.
  static const char* typeName(int ctype);

  int _ctype = 0;
  float _cscale = 1;
  float _ratio = 0;
  float _pscale = 1;
  float _nscale = 1;
  float _bias = 0;  // read for compatibility; hides the base tensor, which this layer never has
  float _thresh = 0;
  float _gamma = 0;

 private:
  void _release();
  // The truth values in the backend's memory: the network keeps them on the host.
  float* _truth_dev = nullptr;
};

}  // namespace ORVA
