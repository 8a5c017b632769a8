// Probabilities over consecutive groups of each item's values: groups of listed sizes (the
// map) or equal groups, with a temperature dividing every value first.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class SoftmaxLayer : public Layer {
 public:
  SoftmaxLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~SoftmaxLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  int _groups = 1;
  float _temperature = 1;
  int* _gmap = nullptr;      // group sizes on the backend; null for equal groups
  int* _gmap_cpu = nullptr;  // the same on the host

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
