// Space-to-depth by a whole stride, in the channel order that imported models of this layer
// type were trained with: the tensor primitive blas_reorg, run backwards over the input shape.
#pragma once
#include "layer/resample_layer.h"

namespace ORVA {

class ReorgLayer : public ResampleLayer {
 public:
  ReorgLayer(int mode, void* handle) : ResampleLayer(mode, handle) {}

  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

 private:
  void _check(bool from_file) const override;
};

}  // namespace ORVA
