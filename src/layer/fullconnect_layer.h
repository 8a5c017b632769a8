// Every input value of an item to every output: a 1 x 1 convolution over the input viewed
// as one pixel with `inputs` channels.
#pragma once
#include "layer/convolution_layer.h"

namespace ORVA {

class FullconnectLayer : public ConvolutionLayer {
 public:
  FullconnectLayer(int mode, void* handle) : ConvolutionLayer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void _makeLayer(bool quant, bool fast) override;
};

}  // namespace ORVA
