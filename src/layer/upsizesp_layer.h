// Sub-pixel enlargement (depth-to-space): each group of stride x stride channels becomes one
// channel at stride times the width and height.
#pragma once
#include "layer/resample_layer.h"

namespace ORVA {

class UpsizespLayer : public ResampleLayer {
 public:
  UpsizespLayer(int mode, void* handle) : ResampleLayer(mode, handle) {}

  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

 private:
  void _check(bool from_file) const override;
};

}  // namespace ORVA
