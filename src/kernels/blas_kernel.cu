// CUDA twins of the tensor operations. Half multiplies and adds are written as an exact
// float product or sum followed by one rounding to nearest even: the same value as the
// native half instruction, available on every architecture and toolkit, and immune to the
// compiler fusing a multiply and an add into one rounding.
#include <cuda_fp16.h>

#include <algorithm>
#include <cfloat>

#include "kernels/blas_kernel.h"
#include "backend/cuda_check.h"

#define REDUCE_THREADS 512
#define NORM_EPSILON 0.00001f

namespace {

__device__ __forceinline__ __half hmul(__half a, __half b) {
  return __float2half_rn(__fmul_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ __half hadd(__half a, __half b) {
  return __float2half_rn(__fadd_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ __half hsub(__half a, __half b) {
  return __float2half_rn(__fsub_rn(__half2float(a), __half2float(b)));
}
// A float quotient of two halves rounds to the same half as the exact quotient.
__device__ __forceinline__ __half hdiv(__half a, __half b) {
  return __float2half_rn(__fdiv_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ bool hgreater(__half a, __half b) { return __half2float(a) > __half2float(b); }
__device__ __forceinline__ __half hneg(__half a) { return __ushort_as_half(__half_as_ushort(a) ^ 0x8000); }

__device__ __forceinline__ float softmax_exp(float x) {
  if (x < -105.f) return 0.f;
  if (x > 105.f) return __int_as_float(0x7f800000);
  return exp2f(x * 1.442695f);
}

inline __half as_device(Ftype h) { return __ushort_as_half(h.__x); }
inline const __half* as_device(const Ftype* p) { return reinterpret_cast<const __half*>(p); }
inline __half* as_device(Ftype* p) { return reinterpret_cast<__half*>(p); }

}  // namespace

// --- im2col / col2im ---------------------------------------------------------------------

__global__ void im2col_kernel(int n, const __half* im, int height, int width, int ksize, int pad, int stride,
                              int height_col, int width_col, __half* data_col) {
  for (int index = blockIdx.x * blockDim.x + threadIdx.x; index < n; index += blockDim.x * gridDim.x) {
    const int x = index % width_col, y = (index / width_col) % height_col, c = index / width_col / height_col;
    const size_t plane = (size_t)height_col * width_col;
    const __half* src = im + (size_t)c * height * width;
    __half* dst = data_col + (size_t)c * ksize * ksize * plane + (size_t)y * width_col + x;
    for (int ky = 0; ky < ksize; ++ky) {
      const int iy = y * stride - pad + ky;
      for (int kx = 0; kx < ksize; ++kx) {
        const int ix = x * stride - pad + kx;
        const bool inside = iy >= 0 && iy < height && ix >= 0 && ix < width;
        *dst = inside ? src[(size_t)iy * width + ix] : __ushort_as_half(0);
        dst += plane;
      }
    }
  }
}

__global__ void col2im_kernel(int n, const __half* data_col, int height, int width, int ksize, int pad, int stride,
                              int height_col, int width_col, __half* data_im) {
  const int i = blockIdx.x * blockDim.x + threadIdx.x;
  if (i >= n) return;
  const int w = i % width + pad, h = (i / width) % height + pad, c = i / width / height;
  const int y_first = h < ksize ? 0 : (h - ksize) / stride + 1, y_end = min(h / stride + 1, height_col);
  const int x_first = w < ksize ? 0 : (w - ksize) / stride + 1, x_end = min(w / stride + 1, width_col);
  const size_t plane = (size_t)height_col * width_col;
  float sum = 0.f;
  for (int y = y_first; y < y_end; ++y)
    for (int x = x_first; x < x_end; ++x) {
      const int ky = h - y * stride, kx = w - x * stride;
      sum = __fadd_rn(sum, __half2float(data_col[((size_t)(c * ksize + ky) * ksize + kx) * plane +
                                                 (size_t)y * width_col + x]));
    }
  data_im[i] = __float2half_rn(__fadd_rn(__half2float(data_im[i]), sum));
}

// --- element-wise on one vector --------------------------------------------------------

__global__ void fill_kernel(int N, __half alpha, __half* X) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)N) X[i] = alpha;
}

__global__ void scale_kernel(int N, __half alpha, __half* X) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)N) X[i] = hmul(X[i], alpha);
}

__global__ void scale_add_kernel(int N, float alpha, float beta, __half* X) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)N) X[i] = __float2half_rn(__fmaf_rn(__half2float(X[i]), alpha, beta));
}

__global__ void axpy_kernel(int N, __half alpha, const __half* X, __half* Y) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)N) Y[i] = hadd(Y[i], hmul(alpha, X[i]));
}

__global__ void constrain_kernel(int N, __half alpha, __half* X) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)N) return;
  const __half neg = hneg(alpha);
  const __half t = hgreater(neg, X[i]) ? neg : X[i];
  X[i] = hgreater(alpha, t) ? t : alpha;
}

// One block: 512 float partials (element t, t + 512, ...), then a fixed tree, so the result
// does not depend on timing and the host twin can reproduce it exactly.
__global__ void sum_kernel(int N, const __half* X, float* result) {
  __shared__ float partial[REDUCE_THREADS];
  const int t = threadIdx.x;
  float acc = 0.f;
  for (int i = t; i < N; i += REDUCE_THREADS) acc = __fadd_rn(acc, __half2float(X[i]));
  partial[t] = acc;
  __syncthreads();
  for (int half_width = REDUCE_THREADS / 2; half_width > 0; half_width /= 2) {
    if (t < half_width) partial[t] = __fadd_rn(partial[t], partial[t + half_width]);
    __syncthreads();
  }
  if (t == 0) *result = partial[0];
}

// --- per channel -------------------------------------------------------------------------

// One thread per element over the flat grid: filters and batch items are not grid
// dimensions, whose y and z stop at 65535 (a connected layer has one element per filter).
__global__ void add_bias_kernel(size_t N, __half* output, const __half* bias, int n, int size) {
  const size_t i = ORVA_INDEX();
  if (i < N) output[i] = hadd(output[i], bias[i / size % n]);
}

__global__ void scale_bias_kernel(size_t N, __half* output, const __half* scale, int n, int size) {
  const size_t i = ORVA_INDEX();
  if (i < N) output[i] = hmul(output[i], scale[i / size % n]);
}

__global__ void scale_add_bias_kernel(size_t N, __half* output, const __half* scales, const __half* bias, int n,
                                      int size) {
  const size_t i = ORVA_INDEX();
  if (i >= N) return;
  const size_t f = i / size % n;
  output[i] = hadd(hmul(output[i], scales[f]), bias[f]);
}

namespace {

// The per-filter reduction: thread t sums positions t, t + 512, ... of every batch item in
// batch order, in half; thread 0 then adds the 512 partials in index order. Returns the total
// in thread 0 (other threads get an unspecified value).
template <typename Term>
__device__ __half filter_sum(int batch, int filters, int spatial, Term term) {
  __shared__ __half partial[REDUCE_THREADS];
  const int f = blockIdx.x, t = threadIdx.x;
  __half acc = __ushort_as_half(0);
  for (int b = 0; b < batch; ++b) {
    const size_t base = ((size_t)b * filters + f) * spatial;
    for (int s = t; s < spatial; s += REDUCE_THREADS) acc = hadd(acc, term(base + s));
  }
  partial[t] = acc;
  __syncthreads();
  __half total = __ushort_as_half(0);
  if (t == 0)
    for (int k = 0; k < REDUCE_THREADS; ++k) total = hadd(total, partial[k]);
  return total;
}

}  // namespace

__global__ void backward_bias_kernel(__half* bias_update, const __half* delta, int batch, int n, int size) {
  const __half s = filter_sum(batch, n, size, [&](size_t i) { return delta[i]; });
  if (threadIdx.x == 0) bias_update[blockIdx.x] = hadd(bias_update[blockIdx.x], s);
}

__global__ void backward_scale_kernel(const __half* x_norm, const __half* delta, int batch, int n, int size,
                                      __half* scale_updates) {
  const __half s = filter_sum(batch, n, size, [&](size_t i) { return hmul(delta[i], x_norm[i]); });
  if (threadIdx.x == 0) scale_updates[blockIdx.x] = hadd(scale_updates[blockIdx.x], s);
}

__global__ void mean_kernel(const __half* x, int batch, int filters, int spatial, __half* mean) {
  const __half s = filter_sum(batch, filters, spatial, [&](size_t i) { return x[i]; });
  if (threadIdx.x == 0) mean[blockIdx.x] = hdiv(s, __int2half_rn(batch * spatial));
}

__global__ void variance_kernel(const __half* x, const __half* mean, int batch, int filters, int spatial,
                                __half* var) {
  const __half m = mean[blockIdx.x];
  const __half s = filter_sum(batch, filters, spatial, [&](size_t i) {
    const __half d = hsub(x[i], m);
    return hmul(d, d);
  });
  if (threadIdx.x == 0) var[blockIdx.x] = hdiv(s, __int2half_rn(batch * spatial - 1));
}

__global__ void mean_delta_kernel(const __half* delta, const __half* var, int batch, int filters, int spatial,
                                  __half* mean_delta) {
  const __half s = filter_sum(batch, filters, spatial, [&](size_t i) { return delta[i]; });
  if (threadIdx.x == 0) {
    const float v = __half2float(var[blockIdx.x]);
    mean_delta[blockIdx.x] = __float2half_rn(__fmul_rn(__half2float(s), -1.f / sqrtf(v + NORM_EPSILON)));
  }
}

__global__ void variance_delta_kernel(const __half* x, const __half* delta, const __half* mean, const __half* var,
                                      int batch, int filters, int spatial, __half* var_delta) {
  const __half m = mean[blockIdx.x];
  const __half s = filter_sum(batch, filters, spatial, [&](size_t i) { return hmul(delta[i], hsub(x[i], m)); });
  if (threadIdx.x == 0) {
    const float v = __half2float(var[blockIdx.x]);
    var_delta[blockIdx.x] =
        __float2half_rn(__fmul_rn(__fmul_rn(__half2float(s), -0.5f), powf(v + NORM_EPSILON, -1.5f)));
  }
}

__global__ void normalize_kernel(size_t N, __half* x, const __half* mean, const __half* var, int filters,
                                 int spatial) {
  const size_t i = ORVA_INDEX();
  if (i >= N) return;
  const int f = (int)((i / spatial) % filters);
  x[i] = __float2half_rn(__half2float(hsub(x[i], mean[f])) / sqrtf(__half2float(var[f]) + NORM_EPSILON));
}

__global__ void normalize_delta_kernel(size_t N, const __half* x, const __half* mean, const __half* var,
                                       const __half* mean_delta, const __half* var_delta, int filters, int spatial,
                                       float count, __half* delta) {
  const size_t i = ORVA_INDEX();
  if (i >= N) return;
  const int f = (int)((i / spatial) % filters);
  const float d = __half2float(delta[i]) / sqrtf(__half2float(var[f]) + NORM_EPSILON) +
                  __half2float(var_delta[f]) * 2.f * (__half2float(x[i]) - __half2float(mean[f])) / count +
                  __half2float(mean_delta[f]) / count;
  delta[i] = __float2half_rn(d);
}

// --- layout ------------------------------------------------------------------------------

__global__ void shortcut_kernel(size_t size, int minw, int minh, int minc, int stride, int sample, int batch, int w1,
                                int h1, int c1, const __half* add, int w2, int h2, int c2, __half alpha,
                                __half beta, __half* out) {
  const size_t i = ORVA_INDEX();
  if (i >= size) return;
  const int x = (int)(i % minw), y = (int)(i / minw % minh), k = (int)(i / minw / minh % minc);
  const int b = (int)(i / minw / minh / minc % batch);
  const size_t out_index = (((size_t)b * c2 + k) * h2 + (size_t)y * sample) * w2 + (size_t)x * sample;
  const size_t add_index = (((size_t)b * c1 + k) * h1 + (size_t)y * stride) * w1 + (size_t)x * stride;
  out[out_index] = hadd(hmul(alpha, out[out_index]), hmul(beta, add[add_index]));
}

__global__ void reorg_kernel(size_t N, const __half* x, int w, int h, int c, int batch, int stride, int forward,
                             __half* out) {
  const size_t i = ORVA_INDEX();
  if (i >= N) return;
  const int iw = (int)(i % w), ih = (int)(i / w % h), ic = (int)(i / w / h % c), b = (int)(i / w / h / c % batch);
  const int out_c = c / (stride * stride);
  const int c2 = ic % out_c, offset = ic / out_c;
  const size_t w2 = (size_t)iw * stride + offset % stride, h2 = (size_t)ih * stride + offset / stride;
  const size_t o = w2 + (size_t)w * stride * (h2 + (size_t)h * stride * (c2 + (size_t)out_c * b));
  if (forward)
    out[o] = x[i];
  else
    out[i] = x[o];
}

__global__ void flatten_kernel(size_t N, const __half* x, int spatial, int layers, int forward, __half* out) {
  const size_t i = ORVA_INDEX();
  if (i >= N) return;
  const size_t s = i % spatial, c = i / spatial % layers, b = i / spatial / layers;
  const size_t i_in = (b * layers + c) * spatial + s, i_out = (b * spatial + s) * layers + c;
  if (forward)
    out[i_out] = x[i_in];
  else
    out[i_in] = x[i_out];
}

// --- softmax -----------------------------------------------------------------------------

namespace {

__device__ void softmax_group(const __half* input, int n, int stride, float temp, __half* output) {
  float largest = -FLT_MAX;
  for (int k = 0; k < n; ++k) largest = fmaxf(largest, __half2float(input[(size_t)k * stride]));
  float sum = 0.f;
  for (int k = 0; k < n; ++k)
    sum = __fadd_rn(sum, softmax_exp(__half2float(input[(size_t)k * stride]) / temp - largest / temp));
  for (int k = 0; k < n; ++k) {
    const size_t i = (size_t)k * stride;
    output[i] = __float2half_rn(softmax_exp(__half2float(input[i]) / temp - largest / temp) / sum);
  }
}

// sum_j y_j dy_j over one softmax, products and sums rounded separately as on the host.
__device__ float softmax_dot(const __half* y, const __half* dy, int n) {
  float dot = 0.f;
  for (int j = 0; j < n; ++j) dot = __fadd_rn(dot, __fmul_rn(__half2float(y[j]), __half2float(dy[j])));
  return dot;
}

}  // namespace

__global__ void softmax_kernel(const __half* input, int n, int batch, int batch_offset, int groups,
                               int group_offset, int stride, float temp, __half* output) {
  const size_t id = ORVA_INDEX();
  if (id >= (size_t)batch * groups) return;
  const size_t base = (id / groups) * batch_offset + (id % groups) * group_offset;
  softmax_group(input + base, n, stride, temp, output + base);
}

__global__ void softmax_map_kernel(const __half* input, int batch, int batch_offset, int groups, const int* gmap,
                                   float temp, __half* output) {
  const size_t id = ORVA_INDEX();
  if (id >= (size_t)batch * groups) return;
  const int g = (int)(id % groups);
  size_t base = (id / groups) * batch_offset;
  for (int j = 0; j < g; ++j) base += gmap[j];
  softmax_group(input + base, gmap[g], 1, temp, output + base);
}

__global__ void softmax2d_kernel(const __half* input, int h, int w, __half* output) {
  const size_t row = ORVA_INDEX();
  if (row >= (size_t)h) return;
  softmax_group(input + row * w, w, 1, 1.f, output + row * w);
}

__global__ void softmax_backward_kernel(const __half* output, const __half* delta, int n, __half* odelta) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)n) return;
  const float dot = softmax_dot(output, delta, n);
  odelta[i] = __float2half_rn(__half2float(output[i]) * (__half2float(delta[i]) - dot));
}

__global__ void softmax2d_backward_kernel(const __half* output, const __half* delta, int h, int w, __half* odelta) {
  const size_t i = ORVA_INDEX();
  if (i >= (size_t)h * w) return;
  const size_t base = i / w * w;
  const float dot = softmax_dot(output + base, delta + base, w);
  odelta[i] = __float2half_rn(__half2float(output[i]) * (__half2float(delta[i]) - dot));
}

// --- launchers -----------------------------------------------------------------------------

namespace gpu {

void gemm(void* handle, int TA, int TB, int M, int N, int K, float ALPHA, const Ftype* A, int lda, const Ftype* B,
          int ldb, float BETA, Ftype* C, int ldc) {
  // cuBLAS is column-major: the row-major product C = op(A) op(B) is C^T = op(B)^T op(A)^T.
  CHECK_CUDA(cublasSgemmEx(cublas_of(handle), TB ? CUBLAS_OP_T : CUBLAS_OP_N, TA ? CUBLAS_OP_T : CUBLAS_OP_N, N, M,
                           K, &ALPHA, B, CUDA_R_16F, ldb, A, CUDA_R_16F, lda, &BETA, C, CUDA_R_16F, ldc));
}

void im2col(void* handle, const Ftype* im, int channels, int height, int width, int ksize, int stride, int pad,
            Ftype* data_col) {
  const int height_col = (height + 2 * pad - ksize) / stride + 1, width_col = (width + 2 * pad - ksize) / stride + 1;
  const int n = channels * height_col * width_col;
  ORVA_LAUNCH(im2col_kernel, (n + ORVA_BLOCK - 1) / ORVA_BLOCK, ORVA_BLOCK, 0, stream_of(handle))(
      n, as_device(im), height, width, ksize, pad, stride, height_col, width_col, as_device(data_col));
  CHECK_LAUNCH();
}

void col2im(void* handle, const Ftype* data_col, int channels, int height, int width, int ksize, int stride, int pad,
            Ftype* data_im) {
  const int height_col = (height + 2 * pad - ksize) / stride + 1, width_col = (width + 2 * pad - ksize) / stride + 1;
  const int n = channels * height * width;
  ORVA_LAUNCH(col2im_kernel, (n + ORVA_BLOCK - 1) / ORVA_BLOCK, ORVA_BLOCK, 0, stream_of(handle))(
      n, as_device(data_col), height, width, ksize, pad, stride, height_col, width_col, as_device(data_im));
  CHECK_LAUNCH();
}

void copy(void* handle, int N, const Ftype* X, Ftype* Y) {
  CHECK_CUDA(cudaMemcpyAsync(Y, X, (size_t)N * sizeof(Ftype), cudaMemcpyDeviceToDevice, stream_of(handle)));
}

void fill(void* handle, int N, Ftype alpha, Ftype* X) {
  ORVA_LAUNCH(fill_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(alpha), as_device(X));
  CHECK_LAUNCH();
}

void scale(void* handle, int N, Ftype alpha, Ftype* X) {
  ORVA_LAUNCH(scale_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(alpha), as_device(X));
  CHECK_LAUNCH();
}

void scale_add(void* handle, int N, float alpha, float beta, Ftype* X) {
  ORVA_LAUNCH(scale_add_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, alpha, beta, as_device(X));
  CHECK_LAUNCH();
}

void axpy(void* handle, int N, Ftype alpha, const Ftype* X, Ftype* Y) {
  ORVA_LAUNCH(axpy_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(alpha), as_device(X), as_device(Y));
  CHECK_LAUNCH();
}

void constrain(void* handle, int N, Ftype alpha, Ftype* X) {
  ORVA_LAUNCH(constrain_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(alpha), as_device(X));
  CHECK_LAUNCH();
}

float sum(void* handle, int N, const Ftype* X) {
  cudaStream_t stream = stream_of(handle);
  float* result = nullptr;
  float host_result = 0.f;
  CHECK_CUDA(cudaMalloc(&result, sizeof(float)));
  ORVA_LAUNCH(sum_kernel, 1, REDUCE_THREADS, 0, stream)(N, as_device(X), result);
  CHECK_LAUNCH();
  CHECK_CUDA(cudaMemcpyAsync(&host_result, result, sizeof(float), cudaMemcpyDeviceToHost, stream));
  CHECK_CUDA(cudaStreamSynchronize(stream));
  CHECK_CUDA(cudaFree(result));
  return host_result;
}

void add_bias(void* handle, Ftype* output, const Ftype* bias, int batch, int n, int size) {
  const size_t N = (size_t)batch * n * size;
  ORVA_LAUNCH(add_bias_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(output), as_device(bias),
                                                                             n, size);
  CHECK_LAUNCH();
}

void scale_bias(void* handle, Ftype* output, const Ftype* scale, int batch, int n, int size) {
  const size_t N = (size_t)batch * n * size;
  ORVA_LAUNCH(scale_bias_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(output),
                                                                               as_device(scale), n, size);
  CHECK_LAUNCH();
}

void scale_add_bias(void* handle, Ftype* output, const Ftype* scales, const Ftype* bias, int batch, int n, int size) {
  const size_t N = (size_t)batch * n * size;
  ORVA_LAUNCH(scale_add_bias_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(
      N, as_device(output), as_device(scales), as_device(bias), n, size);
  CHECK_LAUNCH();
}

void backward_bias(void* handle, Ftype* bias_update, const Ftype* delta, int batch, int n, int size) {
  ORVA_LAUNCH(backward_bias_kernel, n, REDUCE_THREADS, 0, stream_of(handle))(as_device(bias_update), as_device(delta), batch,
                                                                     n, size);
  CHECK_LAUNCH();
}

void backward_scale(void* handle, const Ftype* x_norm, const Ftype* delta, int batch, int n, int size,
                    Ftype* scale_updates) {
  ORVA_LAUNCH(backward_scale_kernel, n, REDUCE_THREADS, 0, stream_of(handle))(as_device(x_norm), as_device(delta), batch, n,
                                                                      size, as_device(scale_updates));
  CHECK_LAUNCH();
}

void mean(void* handle, const Ftype* x, int batch, int filters, int spatial, Ftype* mean) {
  ORVA_LAUNCH(mean_kernel, filters, REDUCE_THREADS, 0, stream_of(handle))(as_device(x), batch, filters, spatial,
                                                                  as_device(mean));
  CHECK_LAUNCH();
}

void variance(void* handle, const Ftype* x, const Ftype* mean, int batch, int filters, int spatial, Ftype* var) {
  ORVA_LAUNCH(variance_kernel, filters, REDUCE_THREADS, 0, stream_of(handle))(as_device(x), as_device(mean), batch, filters,
                                                                      spatial, as_device(var));
  CHECK_LAUNCH();
}

void normalize(void* handle, Ftype* x, const Ftype* mean, const Ftype* var, int batch, int filters, int spatial) {
  const size_t N = (size_t)batch * filters * spatial;
  ORVA_LAUNCH(normalize_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(x), as_device(mean),
                                                                        as_device(var), filters, spatial);
  CHECK_LAUNCH();
}

void mean_delta(void* handle, const Ftype* delta, const Ftype* var, int batch, int filters, int spatial,
                Ftype* mean_delta) {
  ORVA_LAUNCH(mean_delta_kernel, filters, REDUCE_THREADS, 0, stream_of(handle))(as_device(delta), as_device(var), batch,
                                                                        filters, spatial, as_device(mean_delta));
  CHECK_LAUNCH();
}

void variance_delta(void* handle, const Ftype* x, const Ftype* delta, const Ftype* mean, const Ftype* var, int batch,
                    int filters, int spatial, Ftype* var_delta) {
  ORVA_LAUNCH(variance_delta_kernel, filters, REDUCE_THREADS, 0, stream_of(handle))(
      as_device(x), as_device(delta), as_device(mean), as_device(var), batch, filters, spatial, as_device(var_delta));
  CHECK_LAUNCH();
}

void normalize_delta(void* handle, const Ftype* x, const Ftype* mean, const Ftype* var, const Ftype* mean_delta,
                     const Ftype* var_delta, int batch, int filters, int spatial, Ftype* delta) {
  const size_t N = (size_t)batch * filters * spatial;
  ORVA_LAUNCH(normalize_delta_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(
      N, as_device(x), as_device(mean), as_device(var), as_device(mean_delta), as_device(var_delta), filters, spatial,
      (float)spatial * batch, as_device(delta));
  CHECK_LAUNCH();
}

void shortcut(void* handle, int batch, int w1, int h1, int c1, const Ftype* add, int w2, int h2, int c2,
              Ftype alpha, Ftype beta, Ftype* out) {
  const int minw = std::min(w1, w2), minh = std::min(h1, h2), minc = std::min(c1, c2);
  const int stride = std::max(w1 / w2, 1), sample = std::max(w2 / w1, 1);
  const size_t size = (size_t)batch * minw * minh * minc;
  ORVA_LAUNCH(shortcut_kernel, ORVA_GRID(size), ORVA_BLOCK, 0, stream_of(handle))(
      size, minw, minh, minc, stride, sample, batch, w1, h1, c1, as_device(add), w2, h2, c2, as_device(alpha),
      as_device(beta), as_device(out));
  CHECK_LAUNCH();
}

void reorg(void* handle, const Ftype* x, int w, int h, int c, int batch, int stride, int forward, Ftype* out) {
  const size_t N = (size_t)w * h * c * batch;
  ORVA_LAUNCH(reorg_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(x), w, h, c, batch, stride, forward,
                                                                    as_device(out));
  CHECK_LAUNCH();
}

void flatten(void* handle, const Ftype* x, int spatial, int layers, int batch, int forward, Ftype* out) {
  const size_t N = (size_t)spatial * layers * batch;
  ORVA_LAUNCH(flatten_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(N, as_device(x), spatial, layers, forward,
                                                                      as_device(out));
  CHECK_LAUNCH();
}

void softmax_strided(void* handle, const Ftype* input, int n, int batch, int batch_offset, int groups,
                     int group_offset, int stride, float temp, Ftype* output) {
  ORVA_LAUNCH(softmax_kernel, ORVA_GRID((size_t)batch * groups), ORVA_BLOCK, 0, stream_of(handle))(
      as_device(input), n, batch, batch_offset, groups, group_offset, stride, temp, as_device(output));
  CHECK_LAUNCH();
}

void softmax_mapped(void* handle, const Ftype* input, int batch, int batch_offset, int groups, const int* gmap,
                    float temp, Ftype* output) {
  ORVA_LAUNCH(softmax_map_kernel, ORVA_GRID((size_t)batch * groups), ORVA_BLOCK, 0, stream_of(handle))(
      as_device(input), batch, batch_offset, groups, gmap, temp, as_device(output));
  CHECK_LAUNCH();
}

void softmax2d(void* handle, const Ftype* input, int h, int w, Ftype* output) {
  ORVA_LAUNCH(softmax2d_kernel, ORVA_GRID(h), ORVA_BLOCK, 0, stream_of(handle))(as_device(input), h, w, as_device(output));
  CHECK_LAUNCH();
}

void softmax_backward(void* handle, const Ftype* output, const Ftype* delta, int n, Ftype* odelta) {
  ORVA_LAUNCH(softmax_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(as_device(output), as_device(delta), n,
                                                                               as_device(odelta));
  CHECK_LAUNCH();
}

void softmax2d_backward(void* handle, const Ftype* output, const Ftype* delta, int h, int w, Ftype* odelta) {
  ORVA_LAUNCH(softmax2d_backward_kernel, ORVA_GRID((size_t)h * w), ORVA_BLOCK, 0, stream_of(handle))(
      as_device(output), as_device(delta), h, w, as_device(odelta));
  CHECK_LAUNCH();
}

}  // namespace gpu
