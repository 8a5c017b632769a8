// Twins of the detection-head operations: namespace gpu (region_kernel.cu) and namespace cpu
// (region_host.cpp). The launchers in region.cpp have checked the arguments.
#pragma once
#include "orva/float16.h"

#define ORVA_REGION_TWINS                                                                                    \
  void logistic(void* handle, Ftype* x, int batch, int batch_offset, int groups, int group_offset, int n,   \
                float scale, float shift);                                                                  \
  void logistic_gradient(void* handle, const Ftype* y, Ftype* delta, int batch, int batch_offset, int groups, \
                         int group_offset, int n);

namespace cpu {
namespace region {
ORVA_REGION_TWINS
}  // namespace region
}  // namespace cpu
namespace gpu {
namespace region {
ORVA_REGION_TWINS
}  // namespace region
}  // namespace gpu

#undef ORVA_REGION_TWINS
