// Window maximum, remembering where each maximum was for the backward pass.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class MaxpoolLayer : public Layer {
 public:
  MaxpoolLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~MaxpoolLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  int _size = 1;
  int _stride = 1;
  int _pad = 0;
  // Centred windows: output side (in + 2 pad - size) / stride + 1 (stored as its own type).
  bool _centred = false;
  int* _indexes = nullptr;  // training only: batch * outputs flat input indexes, -1 for an empty window

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
