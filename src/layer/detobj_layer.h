// Region-family head whose boxes are anchor boxes centred in their cell with each of the four
// edges moved inward by a predicted fraction of the anchor size.
#pragma once
#include "layer/region_layer.h"

namespace ORVA {

class DetobjLayer : public RegionLayer {
 public:
  DetobjLayer(int mode, void* handle) : RegionLayer(mode, handle) {}

 protected:
  const char* _kind() const override { return "detobj"; }
  // Descriptions of this head share the region head's wording for a missing image.
  const char* _imageKind() const override { return "region"; }
  const char* _statsName() const override { return "Detobj"; }
  bool _readsLocType() const override { return false; }
  int _objEntry() const override { return 0; }
  int _boxEntry() const override { return 1; }
  BBox _decode(const float* out, int n, int i, int j) const override;
  void _boxDelta(const float* out, float* delta, const BBox& t, int n, int i, int j, float s) const override;
  void _activate(Ftype* input, int batch) override;
  void _activateGradient() override;
};

}  // namespace ORVA
