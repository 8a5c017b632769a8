#include <cuda_fp16.h>

#include "kernels/batchnorm_kernel.h"
#include "backend/cuda_check.h"

namespace {

__global__ void scale_bias_kernel(int n, __half* bias, const __half* scale, const __half* mean_rolling,
                                  const __half* var_rolling) {
  const size_t f = ORVA_INDEX();
  if (f >= (size_t)n) return;
  const float k = __half2float(mean_rolling[f]) * __half2float(scale[f]) /
                  (sqrtf(__half2float(var_rolling[f])) + kBatchnormEpsilon);
  bias[f] = __float2half_rn(__half2float(bias[f]) - __half2float(__float2half_rn(k)));
}

__global__ void scale_weight_kernel(size_t count, int size, __half* weight, const __half* scale,
                                    const __half* var_rolling) {
  const size_t i = ORVA_INDEX();
  if (i >= count) return;
  const size_t f = i / size;
  const __half k = __float2half_rn(__half2float(scale[f]) / (sqrtf(__half2float(var_rolling[f])) + kBatchnormEpsilon));
  weight[i] = __float2half_rn(__half2float(weight[i]) * __half2float(k));
}

inline __half* dev(Ftype* p) { return reinterpret_cast<__half*>(p); }

}  // namespace

namespace gpu {

void batchnorm_fold(void* handle, Ftype* weight, Ftype* bias, Ftype* scale, Ftype* mean_rolling,
                    Ftype* var_rolling, int n, int size) {
  cudaStream_t s = stream_of(handle);
  ORVA_LAUNCH(scale_bias_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, s)(n, dev(bias), dev(scale), dev(mean_rolling), dev(var_rolling));
  CHECK_LAUNCH();
  const size_t count = (size_t)n * size;
  ORVA_LAUNCH(scale_weight_kernel, ORVA_GRID(count), ORVA_BLOCK, 0, s)(count, size, dev(weight), dev(scale), dev(var_rolling));
  CHECK_LAUNCH();
}

}  // namespace gpu
