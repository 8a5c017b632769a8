// Nearest-neighbour enlargement by a whole factor ("upsample").
#pragma once
#include "orva/layer.h"

namespace ORVA {

class UpsizennLayer : public Layer {
 public:
  UpsizennLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

  int _stride = 2;

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
