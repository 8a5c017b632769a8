// Common ground of the layers that move values between space and depth by a whole stride
// (reorg, upsample, spresize): one key, one record, and the same build steps. Each derived
// layer gives its own checks, shape, forward and backward.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class ResampleLayer : public Layer {
 public:
  ResampleLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;

  int _stride = 2;

 protected:
  // Ends in the layer's fault (fatal for a description, an exception for a model file).
  virtual void _check(bool from_file) const = 0;
};

}  // namespace ORVA
