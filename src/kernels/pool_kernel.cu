// CUDA twins of the pooling operations: one thread per output for the forward passes, one
// thread per input element for the gradients (a gather, so no atomics and a fixed order of
// summation that the host twin repeats), one thread per plane for the trimmed mean.
#include <cuda_fp16.h>

#include "backend/cuda_check.h"
#include "kernels/pool_kernel.h"

namespace {

__device__ __forceinline__ __half hmul(__half a, __half b) {
  return __float2half_rn(__fmul_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ __half hadd(__half a, __half b) {
  return __float2half_rn(__fadd_rn(__half2float(a), __half2float(b)));
}
inline const __half* as_device(const Ftype* p) { return reinterpret_cast<const __half*>(p); }
inline __half* as_device(Ftype* p) { return reinterpret_cast<__half*>(p); }

__device__ __forceinline__ void covering(int x, int pad, int size, int stride, int out, int& first, int& last) {
  const int lo = x + pad - size + 1;
  first = lo <= 0 ? 0 : (lo + stride - 1) / stride;
  last = min((x + pad) / stride, out - 1);
}

__global__ void maxpool_forward_kernel(size_t n, int in_h, int in_w, int out_h, int out_w, int size, int stride,
                                       int pad, const __half* input, __half* output, int* indexes) {
  const size_t id = ORVA_INDEX();
  if (id >= n) return;
  const int j = (int)(id % out_w), i = (int)(id / out_w % out_h);
  const size_t k = id / ((size_t)out_w * out_h);
  float best = __int_as_float(0xff800000);
  int at = -1;
  for (int dy = 0; dy < size; ++dy) {
    const int y = i * stride - pad + dy;
    if (y < 0 || y >= in_h) continue;
    for (int dx = 0; dx < size; ++dx) {
      const int x = j * stride - pad + dx;
      if (x < 0 || x >= in_w) continue;
      const int index = (int)(x + (size_t)in_w * (y + (size_t)in_h * k));
      const float v = __half2float(input[index]);
      if (v > best) {
        best = v;
        at = index;
      }
    }
  }
  output[id] = at < 0 ? __ushort_as_half(0xFC00) : input[at];
  if (indexes) indexes[id] = at;
}

__global__ void maxpool_backward_kernel(size_t n, int in_h, int in_w, int out_h, int out_w, int size, int stride,
                                        int pad, const __half* delta, const int* indexes, __half* prev_delta) {
  const size_t id = ORVA_INDEX();
  if (id >= n) return;
  const int x = (int)(id % in_w), y = (int)(id / in_w % in_h);
  const size_t k = id / ((size_t)in_w * in_h);
  int i0, i1, j0, j1;
  covering(y, pad, size, stride, out_h, i0, i1);
  covering(x, pad, size, stride, out_w, j0, j1);
  if (i0 > i1 || j0 > j1) return;
  float sum = 0.f;
  for (int i = i0; i <= i1; ++i)
    for (int j = j0; j <= j1; ++j) {
      const size_t o = (k * out_h + i) * out_w + j;
      if (indexes[o] == (int)id) sum = __fadd_rn(sum, __half2float(delta[o]));
    }
  prev_delta[id] = __float2half_rn(__fadd_rn(__half2float(prev_delta[id]), sum));
}

__global__ void avgpool_forward_kernel(size_t n, int in_h, int in_w, int out_h, int out_w, int size, int stride,
                                       int pad, const __half* input, __half* output) {
  const size_t id = ORVA_INDEX();
  if (id >= n) return;
  const int j = (int)(id % out_w), i = (int)(id / out_w % out_h);
  const size_t k = id / ((size_t)out_w * out_h);
  __half sum = __ushort_as_half(0);
  for (int dy = 0; dy < size; ++dy) {
    const int y = i * stride - pad + dy;
    if (y < 0 || y >= in_h) continue;
    for (int dx = 0; dx < size; ++dx) {
      const int x = j * stride - pad + dx;
      if (x < 0 || x >= in_w) continue;
      sum = hadd(sum, input[x + (size_t)in_w * (y + (size_t)in_h * k)]);
    }
  }
  output[id] = __float2half_rn(__fdiv_rn(__half2float(sum), (float)size * size));
}

__global__ void avgpool_backward_kernel(size_t n, int in_h, int in_w, int out_h, int out_w, int size, int stride,
                                        int pad, const __half* delta, __half* prev_delta) {
  const size_t id = ORVA_INDEX();
  if (id >= n) return;
  const int x = (int)(id % in_w), y = (int)(id / in_w % in_h);
  const size_t k = id / ((size_t)in_w * in_h);
  int i0, i1, j0, j1;
  covering(y, pad, size, stride, out_h, i0, i1);
  covering(x, pad, size, stride, out_w, j0, j1);
  float sum = 0.f;
  for (int i = i0; i <= i1; ++i)
    for (int j = j0; j <= j1; ++j) sum = __fadd_rn(sum, __half2float(delta[(k * out_h + i) * out_w + j]));
  const float add = __fdiv_rn(sum, (float)size * size);
  prev_delta[id] = __float2half_rn(__fadd_rn(__half2float(prev_delta[id]), add));
}

__global__ void global_avgpool_forward_kernel(int planes, int plane, int square, const __half* input,
                                              __half* output) {
  const size_t q = ORVA_INDEX();
  if (q >= (size_t)planes) return;
  const __half* x = input + q * plane;
  __half sum = __ushort_as_half(0);
  for (int p = 0; p < plane; ++p) sum = hadd(sum, square ? hmul(x[p], x[p]) : x[p]);
  output[q] = __float2half_rn(__fdiv_rn(__half2float(sum), (float)plane));
}

__global__ void global_trim_avgpool_forward_kernel(int planes, int plane, int square, int tmin, int tmax,
                                                   const __half* input, int* order, __half* output) {
  const size_t q = ORVA_INDEX();
  if (q >= (size_t)planes) return;
  const __half* x = input + q * plane;
  int* ord = order + q * plane;
  for (int p = 0; p < plane; ++p) {
    const float v = __half2float(x[p]);
    int j = p - 1;
    while (j >= 0 && __half2float(x[ord[j]]) > v) {
      ord[j + 1] = ord[j];
      --j;
    }
    ord[j + 1] = p;
  }
  __half sum = __ushort_as_half(0);
  for (int rank = tmin; rank < plane - tmax; ++rank) {
    const __half v = x[ord[rank]];
    sum = hadd(sum, square ? hmul(v, v) : v);
  }
  output[q] = __float2half_rn(__fdiv_rn(__half2float(sum), (float)(plane - tmin - tmax)));
}

// One thread per plane: the kept positions are known only through the plane's ranking.
__global__ void global_avgpool_backward_kernel(int planes, int plane, int square, int tmin, int tmax,
                                               const __half* input, const int* order, const __half* delta,
                                               __half* prev_delta) {
  const size_t q = ORVA_INDEX();
  if (q >= (size_t)planes) return;
  const size_t base = q * plane;
  const float g = __fdiv_rn(__half2float(delta[q]), (float)(plane - tmin - tmax));
  for (int rank = tmin; rank < plane - tmax; ++rank) {
    const size_t at = base + (order ? order[base + rank] : rank);
    const float d = square ? __fmul_rn(__fmul_rn(g, 2.f), __half2float(input[at])) : g;
    prev_delta[at] = __float2half_rn(__fadd_rn(__half2float(prev_delta[at]), d));
  }
}

}  // namespace

namespace gpu {
namespace pool {

void max_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                 int pad, const Ftype* input, Ftype* output, int* indexes) {
  const size_t n = (size_t)batch * in_c * out_h * out_w;
  ORVA_LAUNCH(maxpool_forward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, in_h, in_w, out_h, out_w, size, stride, pad, as_device(input), as_device(output), indexes);
  CHECK_LAUNCH();
}

void max_backward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                  int pad, const Ftype* delta, const int* indexes, Ftype* prev_delta) {
  const size_t n = (size_t)batch * in_c * in_h * in_w;
  ORVA_LAUNCH(maxpool_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, in_h, in_w, out_h, out_w, size, stride, pad, as_device(delta), indexes, as_device(prev_delta));
  CHECK_LAUNCH();
}

void avg_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                 int pad, const Ftype* input, Ftype* output) {
  const size_t n = (size_t)batch * in_c * out_h * out_w;
  ORVA_LAUNCH(avgpool_forward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, in_h, in_w, out_h, out_w, size, stride, pad, as_device(input), as_device(output));
  CHECK_LAUNCH();
}

void avg_backward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                  int pad, const Ftype* delta, Ftype* prev_delta) {
  const size_t n = (size_t)batch * in_c * in_h * in_w;
  ORVA_LAUNCH(avgpool_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, in_h, in_w, out_h, out_w, size, stride, pad, as_device(delta), as_device(prev_delta));
  CHECK_LAUNCH();
}

void global_forward(void* handle, int planes, int plane, int square, int tmin, int tmax, const Ftype* input,
                    int* order, Ftype* output) {
  if (tmin || tmax)
    ORVA_LAUNCH(global_trim_avgpool_forward_kernel, ORVA_GRID(planes), ORVA_BLOCK, 0, stream_of(handle))(
        planes, plane, square, tmin, tmax, as_device(input), order, as_device(output));
  else
    ORVA_LAUNCH(global_avgpool_forward_kernel, ORVA_GRID(planes), ORVA_BLOCK, 0, stream_of(handle))(
        planes, plane, square, as_device(input), as_device(output));
  CHECK_LAUNCH();
}

void global_backward(void* handle, int planes, int plane, int square, int tmin, int tmax, const Ftype* input,
                     const int* order, const Ftype* delta, Ftype* prev_delta) {
  ORVA_LAUNCH(global_avgpool_backward_kernel, ORVA_GRID(planes), ORVA_BLOCK, 0, stream_of(handle))(
      planes, plane, square, tmin, tmax, as_device(input), (tmin || tmax) ? order : nullptr, as_device(delta),
      as_device(prev_delta));
  CHECK_LAUNCH();
}

}  // namespace pool
}  // namespace gpu
