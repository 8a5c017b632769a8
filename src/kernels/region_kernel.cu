// CUDA twins of the detection-head operations. Explicit _rn float steps, each rounded to half
// where the host twin rounds, so the compiler can't fuse what the host computes apart.
#include <cuda_fp16.h>

#include "backend/cuda_check.h"
#include "kernels/region_kernel.h"

namespace {

__device__ __forceinline__ float logistic_exp(float t) {
  if (t < -105.f) return 0.f;
  if (t > 105.f) return __int_as_float(0x7f800000);
  return exp2f(t * 1.442695f);
}

__device__ __forceinline__ size_t run_offset(size_t i, int batch_offset, int groups, int group_offset, int n) {
  const size_t run = i / n;
  return (run / groups) * batch_offset + (run % groups) * group_offset + i % n;
}

__global__ void logistic_kernel(__half* x, size_t count, int batch_offset, int groups, int group_offset, int n,
                                float scale, float shift) {
  const size_t i = ORVA_INDEX();
  if (i >= count) return;
  const size_t o = run_offset(i, batch_offset, groups, group_offset, n);
  const float v = -__half2float(x[o]);
  float y = __half2float(__float2half_rn(__fdiv_rn(1.f, __fadd_rn(1.f, logistic_exp(v)))));
  if (scale > 1.f) y = __fadd_rn(__fmul_rn(y, scale), shift);
  x[o] = __float2half_rn(y);
}

__global__ void logistic_gradient_kernel(const __half* y, __half* delta, size_t count, int batch_offset, int groups,
                                         int group_offset, int n) {
  const size_t i = ORVA_INDEX();
  if (i >= count) return;
  const size_t o = run_offset(i, batch_offset, groups, group_offset, n);
  const float yv = __half2float(y[o]);
  const float g = __half2float(__float2half_rn(__fmul_rn(__half2float(__float2half_rn(__fsub_rn(1.f, yv))), yv)));
  delta[o] = __float2half_rn(__fmul_rn(__half2float(delta[o]), g));
}

}  // namespace

namespace gpu {
namespace region {

void logistic(void* handle, Ftype* x, int batch, int batch_offset, int groups, int group_offset, int n, float scale,
              float shift) {
  const size_t count = (size_t)batch * groups * n;
  ORVA_LAUNCH(logistic_kernel, ORVA_GRID(count), ORVA_BLOCK, 0, stream_of(handle))
  (reinterpret_cast<__half*>(x), count, batch_offset, groups, group_offset, n, scale, shift);
  CHECK_LAUNCH();
}

void logistic_gradient(void* handle, const Ftype* y, Ftype* delta, int batch, int batch_offset, int groups,
                       int group_offset, int n) {
  const size_t count = (size_t)batch * groups * n;
  ORVA_LAUNCH(logistic_gradient_kernel, ORVA_GRID(count), ORVA_BLOCK, 0, stream_of(handle))
  (reinterpret_cast<const __half*>(y), reinterpret_cast<__half*>(delta), count, batch_offset, groups, group_offset, n);
  CHECK_LAUNCH();
}

}  // namespace region
}  // namespace gpu
