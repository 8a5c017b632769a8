#include <cuda_fp16.h>

#include "backend/cuda_check.h"
#include "kernels/float16_kernel.h"

__global__ void float2half_kernel(const float* x, __half* y, int n) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) y[i] = __float2half_rn(x[i]);
}

__global__ void half2float_kernel(float* y, const __half* x, int n) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) y[i] = __half2float(x[i]);
}

namespace gpu {

void float2half(void* handle, const float* src, _half* dst, size_t n) {
  ORVA_LAUNCH(float2half_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(src, (__half*)dst, (int)n);
  CHECK_LAUNCH();
}

void half2float(void* handle, float* dst, const _half* src, size_t n) {
  ORVA_LAUNCH(half2float_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(dst, (const __half*)src, (int)n);
  CHECK_LAUNCH();
}

}  // namespace gpu
