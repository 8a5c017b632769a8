// CUDA loss kernels, one thread per element. Half steps are an exact float operation and
// one rounding, so the host twins reproduce them bit for bit.
#include <cuda_fp16.h>

#include "kernels/cost_kernel.h"
#include "backend/cuda_check.h"

namespace {

inline __half as_device(Ftype h) { return __ushort_as_half(h.__x); }
inline const __half* as_device(const Ftype* p) { return reinterpret_cast<const __half*>(p); }
inline __half* as_device(Ftype* p) { return reinterpret_cast<__half*>(p); }

__device__ __forceinline__ float diff(const float* truth, const __half* input, size_t i) {
  const float t = __half2float(__float2half_rn(truth[i]));
  return __half2float(__float2half_rn(__fsub_rn(t, __half2float(input[i]))));
}

}  // namespace

__global__ void l2_kernel(int n, const __half* input, const float* truth, __half* delta, __half* error, __half thresh) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)n) return;
  const float d = diff(truth, input, i);
  const __half e = __float2half_rn(__fmul_rn(d, d));
  error[i] = e;
  delta[i] = __half2float(e) > __half2float(thresh) ? __float2half_rn(d) : __float2half_rn(0.f);
}

__global__ void l1_kernel(int n, const __half* input, const float* truth, __half* delta, __half* error, __half thresh) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)n) return;
  const float d = diff(truth, input, i), a = fabsf(d);
  error[i] = __float2half_rn(a);
  delta[i] = __float2half_rn(a > __half2float(thresh) ? (d > 0.f ? 1.f : -1.f) : 0.f);
}

__global__ void l1smooth_kernel(int n, const __half* input, const float* truth, __half* delta, __half* error,
                                __half thresh) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)n) return;
  const float d = diff(truth, input, i), a = fabsf(d), t = __half2float(thresh);
  if (a < 1.f) {
    const __half e = __float2half_rn(__fmul_rn(d, d));
    error[i] = e;
    delta[i] = __half2float(e) > t ? __float2half_rn(d) : __float2half_rn(0.f);
  } else {
    const float twice = __half2float(__float2half_rn(__fmul_rn(2.f, a)));
    const __half e = __float2half_rn(__fsub_rn(twice, 1.f));
    error[i] = e;
    delta[i] = __float2half_rn(__half2float(e) > t ? (d > 0.f ? 1.f : -1.f) : 0.f);
  }
}

__global__ void xentropy_kernel(int n, const __half* input, const float* truth, __half* delta, __half* error,
                                float eps, float gamma, float pscale, float nscale) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)n) return;
  const float y = truth[i];
  const float p = fminf(fmaxf(__half2float(input[i]), eps), 1.f - eps);
  const float q = 1.f - p;
  const float fp = powf(q, gamma), fn = powf(p, gamma);
  // Products and sums rounded one by one, as on the host: no multiply-add is fused.
  const float pos = pscale * y * fp, neg = nscale * (1.f - y) * fn;
  error[i] = __float2half_rn(-__fadd_rn(__fmul_rn(pos, logf(p)), __fmul_rn(neg, logf(q))));
  delta[i] = __float2half_rn(__fsub_rn(__fmul_rn(pos, q), __fmul_rn(neg, p)));
}

namespace gpu {

void l2(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh) {
  ORVA_LAUNCH(l2_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))
  (n, as_device(input), truth, as_device(delta), as_device(error), as_device(thresh));
  CHECK_LAUNCH();
}

void l1(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh) {
  ORVA_LAUNCH(l1_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))
  (n, as_device(input), truth, as_device(delta), as_device(error), as_device(thresh));
  CHECK_LAUNCH();
}

void l1smooth(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh) {
  ORVA_LAUNCH(l1smooth_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))
  (n, as_device(input), truth, as_device(delta), as_device(error), as_device(thresh));
  CHECK_LAUNCH();
}

void xentropy(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, float eps,
              float gamma, float pscale, float nscale) {
  ORVA_LAUNCH(xentropy_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))
  (n, as_device(input), truth, as_device(delta), as_device(error), eps, gamma, pscale, nscale);
  CHECK_LAUNCH();
}

}  // namespace gpu
