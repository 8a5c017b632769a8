// Image conversion kernels: bytes widen to half as byte / 255 (the float quotient, rounded
// once), and half values narrow as x 255, clamped, truncated. Channel order reverses both
// ways, so BGR bytes become RGB planes and back.
#include <cuda_fp16.h>

#include "backend/cuda_check.h"
#include "kernels/data_kernel.h"

namespace {

__device__ __forceinline__ __half widen(unsigned char b) { return __float2half_rn((float)b / 255.f); }

__device__ __forceinline__ unsigned char narrow(__half h) {
  const float v = __half2float(h) * 255.f;
  if (!(v >= 0.f)) return 0;
  return (unsigned char)(v < 255.f ? v : 255.f);
}

// Planar bytes (one channel per group): same order.
__global__ void cv2data_kernel_1(const unsigned char* raw, __half* dst, size_t n) {
  const size_t i = ORVA_INDEX();
  if (i < n) dst[i] = widen(raw[i]);
}

// One interleaved image; one thread per output element so the half writes coalesce.
__global__ void cv2data_kernel_n(const unsigned char* raw, __half* dst, int npix, int c) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)npix * c) return;
  const size_t k = i / npix, p = i - k * npix;
  dst[i] = widen(raw[p * c + (c - 1 - k)]);
}

// `groups` interleaved images of c channels back to back.
__global__ void cv2data_kernel_nb(const unsigned char* raw, __half* dst, int npix, int c, int groups) {
  const size_t i = ORVA_INDEX();
  const size_t plane_set = (size_t)npix * c;
  if (i >= plane_set * groups) return;
  const size_t g = i / plane_set, r = i - g * plane_set;
  const size_t k = r / npix, p = r - k * npix;
  dst[i] = widen(raw[g * plane_set + p * c + (c - 1 - k)]);
}

__global__ void data2cv_kernel_1(unsigned char* raw, const __half* src, int npix) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)npix) raw[i] = narrow(src[i]);
}

// One thread per output byte: byte slot s of pixel p comes from plane c - 1 - s.
__global__ void data2cv_kernel_n(unsigned char* raw, const __half* src, int npix, int c) {
  const size_t j = ORVA_INDEX();
  if (j >= (size_t)npix * c) return;
  const size_t p = j / c, s = j - p * c;
  raw[j] = narrow(src[(c - 1 - s) * (size_t)npix + p]);
}

}  // namespace

namespace gpu {

void cv2data(void* handle, const unsigned char* src, Ftype* dst, unsigned char* raw, int npix, int c, int groups) {
  cudaStream_t stream = stream_of(handle);
  const size_t n = (size_t)npix * c * groups;
  CHECK_CUDA(cudaMemcpyAsync(raw, src, n, cudaMemcpyHostToDevice, stream));
  if (c == 1) {
    ORVA_LAUNCH(cv2data_kernel_1, ORVA_GRID(n), ORVA_BLOCK, 0, stream)(raw, (__half*)dst, n);
  } else if (groups == 1) {
    ORVA_LAUNCH(cv2data_kernel_n, ORVA_GRID(n), ORVA_BLOCK, 0, stream)(raw, (__half*)dst, npix, c);
  } else {
    ORVA_LAUNCH(cv2data_kernel_nb, ORVA_GRID(n), ORVA_BLOCK, 0, stream)(raw, (__half*)dst, npix, c, groups);
  }
  CHECK_LAUNCH();
}

void data2cv(void* handle, const Ftype* src, unsigned char* dst, unsigned char* raw, int npix, int c) {
  cudaStream_t stream = stream_of(handle);
  const size_t n = (size_t)npix * c;
  if (c < 2) {
    ORVA_LAUNCH(data2cv_kernel_1, ORVA_GRID(npix), ORVA_BLOCK, 0, stream)(raw, (const __half*)src, npix);
  } else {
    ORVA_LAUNCH(data2cv_kernel_n, ORVA_GRID(n), ORVA_BLOCK, 0, stream)(raw, (const __half*)src, npix, c);
  }
  CHECK_LAUNCH();
  CHECK_CUDA(cudaMemcpyAsync(dst, raw, n, cudaMemcpyDeviceToHost, stream));
  CHECK_CUDA(cudaStreamSynchronize(stream));
}

}  // namespace gpu
