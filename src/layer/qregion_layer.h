// Region head whose box sizes always use the exponential encoding.
#pragma once
#include "layer/region_layer.h"

namespace ORVA {

class QRegionLayer : public RegionLayer {
 public:
  QRegionLayer(int mode, void* handle) : RegionLayer(mode, handle) {}

 protected:
  const char* _kind() const override { return "qregion"; }
  const char* _statsName() const override { return "QRegion"; }
  bool _readsLocType() const override { return false; }
  bool _squaredSizes() const override { return false; }
};

}  // namespace ORVA
