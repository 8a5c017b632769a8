// Quantisation kernels. The two reductions run as one block of 512 threads whose thread 0
// gathers the partials: they serve load-time and calibration calls, not the inference pass.
#include <cuda_fp16.h>

#include "backend/cuda_check.h"
#include "kernels/quant_kernel.h"

namespace {

__device__ __forceinline__ float to_steps(float v, float lo, float hi) {
  if (v != v) return 0.f;
  v = rintf(v);
  return v < lo ? lo : (v > hi ? hi : v);
}

__global__ void quant_int8_kernel(const __half* src, signed char* dst, int n, float scale) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) dst[i] = (signed char)to_steps(__half2float(src[i]) * scale, -127.f, 127.f);
}

__global__ void quant_uint8_kernel(const __half* src, unsigned char* dst, int n, float scale) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) dst[i] = (unsigned char)to_steps(__half2float(src[i]) * scale, 0.f, 254.f);
}

__global__ void quant_float_kernel(const unsigned char* src, __half* dst, int n, float step, bool is_unsigned) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) {
    const float q = is_unsigned ? (float)src[i] : (float)(signed char)src[i];
    dst[i] = __float2half_rn(q * step);
  }
}

// result[0] = largest |x|, result[1] = smallest x; NaN never wins a comparison.
__global__ void quant_thresh_kernel(const __half* src, int n, float* result) {
  __shared__ float partial[2 * ORVA_BLOCK];
  float max_abs = 0.f, min_value = 0.f;
  for (int i = threadIdx.x; i < n; i += blockDim.x) {
    const float x = __half2float(src[i]);
    if (fabsf(x) > max_abs) max_abs = fabsf(x);
    if (x < min_value) min_value = x;
  }
  partial[threadIdx.x] = max_abs;
  partial[blockDim.x + threadIdx.x] = min_value;
  __syncthreads();
  if (threadIdx.x == 0) {
    for (unsigned t = 1; t < blockDim.x; ++t) {
      if (partial[t] > max_abs) max_abs = partial[t];
      if (partial[blockDim.x + t] < min_value) min_value = partial[blockDim.x + t];
    }
    result[0] = max_abs;
    result[1] = min_value;
  }
}

__global__ void get_qerror_kernel(const __half* src, int n, float scale, float step, double* result) {
  __shared__ float partial[ORVA_BLOCK];
  float sum = 0.f;
  for (int i = threadIdx.x; i < n; i += blockDim.x) {
    const float x = __half2float(src[i]);
    sum += fabsf(__fsub_rn(x, __fmul_rn(to_steps(x * scale, -127.f, 127.f), step)));
  }
  partial[threadIdx.x] = sum;
  __syncthreads();
  if (threadIdx.x == 0) {
    double total = 0.0;
    for (unsigned t = 0; t < blockDim.x; ++t) total += partial[t];
    *result = total;
  }
}

}  // namespace

namespace gpu {

void quant_int8(void* handle, const Ftype* x, int n, float scale, signed char* q) {
  ORVA_LAUNCH(quant_int8_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))((const __half*)x, q, n, scale);
  CHECK_LAUNCH();
}

void quant_uint8(void* handle, const Ftype* x, int n, float scale, unsigned char* q) {
  ORVA_LAUNCH(quant_uint8_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))((const __half*)x, q, n, scale);
  CHECK_LAUNCH();
}

void quant_float(void* handle, const unsigned char* q, bool is_unsigned, int n, float step, Ftype* x) {
  ORVA_LAUNCH(quant_float_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(q, (__half*)x, n, step, is_unsigned);
  CHECK_LAUNCH();
}

void quant_thresh(void* handle, const Ftype* x, int n, float* max_abs, float* min_value) {
  cudaStream_t stream = stream_of(handle);
  float* result = (float*)cuda_malloc(handle, 2 * sizeof(float));
  ORVA_LAUNCH(quant_thresh_kernel, 1, ORVA_BLOCK, 0, stream)((const __half*)x, n, result);
  CHECK_LAUNCH();
  float host[2];
  CHECK_CUDA(cudaMemcpyAsync(host, result, sizeof(host), cudaMemcpyDeviceToHost, stream));
  CHECK_CUDA(cudaStreamSynchronize(stream));
  cuda_free(handle, result);
  *max_abs = host[0];
  *min_value = host[1];
}

double get_qerror(void* handle, const Ftype* x, int n, float scale, float step) {
  cudaStream_t stream = stream_of(handle);
  double* result = (double*)cuda_malloc(handle, sizeof(double));
  ORVA_LAUNCH(get_qerror_kernel, 1, ORVA_BLOCK, 0, stream)((const __half*)x, n, scale, step, result);
  CHECK_LAUNCH();
  double host = 0.0;
  CHECK_CUDA(cudaMemcpyAsync(&host, result, sizeof(host), cudaMemcpyDeviceToHost, stream));
  CHECK_CUDA(cudaStreamSynchronize(stream));
  cuda_free(handle, result);
  return host;
}

}  // namespace gpu
