// Nearest-neighbour enlargement by a whole factor ("upsample").
#pragma once
#include "layer/resample_layer.h"

namespace ORVA {

class UpsizennLayer : public ResampleLayer {
 public:
  UpsizennLayer(int mode, void* handle) : ResampleLayer(mode, handle) {}

  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

 private:
  void _check(bool from_file) const override;
};

}  // namespace ORVA
