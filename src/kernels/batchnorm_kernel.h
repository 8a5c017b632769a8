// Backend twins of the batch-normalisation launchers (include/orva/batchnorm.h).
#pragma once
#include "orva/batchnorm.h"

#define ORVA_BATCHNORM_TWINS                                                                                   \
  void batchnorm_forward_training(void* handle, Ftype* x, Ftype* y, Ftype* scale, Ftype* bias, int batch, int n, \
                                  int size, Ftype* mean_rolling, Ftype* var_rolling, Ftype* mean, Ftype* var,  \
                                  float* param32);                                                             \
  void batchnorm_backward(void* handle, Ftype* x, Ftype* dy, Ftype* dx, Ftype* scale, Ftype* scale_update,     \
                          Ftype* bias_update, int batch, int n, int size, Ftype* mean, Ftype* var,             \
                          Ftype* mean_delta, Ftype* var_delta, float* param32);                                \
  void batchnorm_fold(void* handle, Ftype* weight, Ftype* bias, Ftype* scale, Ftype* mean_rolling,             \
                      Ftype* var_rolling, int n, int size);

namespace cpu {
ORVA_BATCHNORM_TWINS
}
namespace gpu {
ORVA_BATCHNORM_TWINS
}
#undef ORVA_BATCHNORM_TWINS

// Folding and the inference normalisation use different epsilon placements on purpose:
// the fold divides by sqrt(var) + eps, the normalisation by sqrt(var + eps).
constexpr float kBatchnormEpsilon = 0.00001f;
constexpr double kBatchnormAverageFactor = 0.001;
