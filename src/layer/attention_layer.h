// Channel attention: scales each channel of an earlier layer's feature map (layer "from")
// by one value of the previous layer's output, which holds one factor per channel of each
// item (for example a squeeze-and-excitation branch ending in a logistic).
#pragma once
#include "layer/scalemap_layer.h"

namespace ORVA {

class AttentionLayer : public ScalemapLayer {
 public:
  AttentionLayer(int mode, void* handle) : ScalemapLayer(mode, handle) {
    _per_position = 0;
    _name = "attention";
  }
};

}  // namespace ORVA
