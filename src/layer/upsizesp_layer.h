// Sub-pixel enlargement (depth-to-space): each group of stride x stride channels becomes one
// channel at stride times the width and height.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class UpsizespLayer : public Layer {
 public:
  UpsizespLayer(int mode, void* handle) : Layer(mode, handle) {}

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
