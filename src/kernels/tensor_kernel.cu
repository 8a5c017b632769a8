// CUDA twins of the layout and broadcast operations: element-wise kernels over the output
// (or the gradient's target), and one thread per reduced value for the scale gradients.
#include <cuda_fp16.h>

#include "backend/cuda_check.h"
#include "kernels/tensor_kernel.h"

namespace {

__device__ __forceinline__ __half hmul(__half a, __half b) {
  return __float2half_rn(__fmul_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ __half add_grad(__half prev, float g) {
  return __float2half_rn(__fadd_rn(__half2float(prev), g));
}
inline const __half* as_device(const Ftype* p) { return reinterpret_cast<const __half*>(p); }
inline __half* as_device(Ftype* p) { return reinterpret_cast<__half*>(p); }

__global__ void upsample_kernel(size_t n, int w, int h, int stride, const __half* input, __half* output) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const int ow = w * stride, oh = h * stride;
  const int x = (int)(i % ow), y = (int)(i / ow % oh);
  const size_t k = i / ((size_t)ow * oh);
  output[i] = input[(k * h + y / stride) * w + x / stride];
}

struct Taps {
  int lo, hi;
  float t;
};
__device__ __forceinline__ Taps taps(int d, float step, int half_pixel, int in) {
  const float src = half_pixel ? __fsub_rn(__fmul_rn(__fadd_rn((float)d, 0.5f), step), 0.5f) : __fmul_rn((float)d, step);
  const float f = floorf(src);
  return Taps{max((int)f, 0), min((int)ceilf(src), in - 1), __fsub_rn(src, f)};
}
__device__ __forceinline__ float tap_weight(const Taps& k, int i) {
  return __fadd_rn(k.lo == i ? __fsub_rn(1.f, k.t) : 0.f, k.hi == i ? k.t : 0.f);
}
__device__ __forceinline__ void reach(int i, int in, int out, float step, int half_pixel, int* first, int* last) {
  *first = 0;
  *last = out - 1;
  if (!(step > 0.f)) return;
  const float off = half_pixel ? __fsub_rn(__fmul_rn(0.5f, step), 0.5f) : 0.f;
  if (i > 0) *first = max(0, (int)floorf(__fdiv_rn(__fsub_rn(__fsub_rn((float)i, 1.f), off), step)) - 1);
  if (i < in - 1) *last = min(out - 1, (int)ceilf(__fdiv_rn(__fsub_rn(__fadd_rn((float)i, 1.f), off), step)) + 1);
}
__device__ __forceinline__ float lerp(float a, float b, float t) { return __fadd_rn(a, __fmul_rn(__fsub_rn(b, a), t)); }

__global__ void resize_kernel(size_t n, int in_w, int in_h, int out_w, int out_h, float sx, float sy, int half_pixel,
                              const __half* input, __half* output) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const int x = (int)(i % out_w), y = (int)(i / out_w % out_h);
  const size_t k = i / ((size_t)out_w * out_h);
  const Taps tx = taps(x, sx, half_pixel, in_w), ty = taps(y, sy, half_pixel, in_h);
  const __half* top = input + (k * in_h + ty.lo) * in_w;
  const __half* bottom = input + (k * in_h + ty.hi) * in_w;
  const float t = lerp(__half2float(top[tx.lo]), __half2float(top[tx.hi]), tx.t);
  const float u = lerp(__half2float(bottom[tx.lo]), __half2float(bottom[tx.hi]), tx.t);
  output[i] = __float2half_rn(lerp(t, u, ty.t));
}

__global__ void resize_backward_kernel(size_t n, int in_w, int in_h, int out_w, int out_h, float sx, float sy,
                                       int half_pixel, const __half* delta, __half* prev_delta) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const int x = (int)(i % in_w), y = (int)(i / in_w % in_h);
  const size_t k = i / ((size_t)in_w * in_h);
  int y0, y1, x0, x1;
  reach(y, in_h, out_h, sy, half_pixel, &y0, &y1);
  reach(x, in_w, out_w, sx, half_pixel, &x0, &x1);
  float sum = 0.f;
  for (int oy = y0; oy <= y1; ++oy) {
    const float wy = tap_weight(taps(oy, sy, half_pixel, in_h), y);
    if (wy == 0.f) continue;
    for (int ox = x0; ox <= x1; ++ox) {
      const float wx = tap_weight(taps(ox, sx, half_pixel, in_w), x);
      if (wx == 0.f) continue;
      sum = __fadd_rn(sum, __fmul_rn(__half2float(delta[(k * out_h + oy) * out_w + ox]), __fmul_rn(wy, wx)));
    }
  }
  prev_delta[i] = add_grad(prev_delta[i], sum);
}

__global__ void upsample_backward_kernel(size_t n, int w, int h, int stride, const __half* delta,
                                         __half* prev_delta) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const int ow = w * stride, oh = h * stride;
  const int x = (int)(i % w), y = (int)(i / w % h);
  const size_t k = i / ((size_t)w * h);
  const __half* src = delta + (k * oh + (size_t)y * stride) * ow + (size_t)x * stride;
  float sum = 0.f;
  for (int dy = 0; dy < stride; ++dy)
    for (int dx = 0; dx < stride; ++dx) sum = __fadd_rn(sum, __half2float(src[(size_t)dy * ow + dx]));
  prev_delta[i] = add_grad(prev_delta[i], sum);
}

__global__ void add_scaled_kernel(size_t n, __half alpha, const __half* x, __half beta, const __half* y,
                                  __half* out) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  out[i] = __float2half_rn(__fadd_rn(__half2float(hmul(alpha, x[i])), __half2float(hmul(beta, y[i]))));
}

__global__ void scale_kernel(size_t n, int c, int size, int per_position, const __half* input, const __half* s,
                             __half* output) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const size_t k = i / size, p = i % size;
  output[i] = hmul(input[i], per_position ? s[k / c * size + p] : s[k]);
}

__global__ void scale_backward_kernel(size_t n, int c, int size, int per_position, const __half* s,
                                      const __half* delta, __half* prev_delta) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const size_t k = i / size, p = i % size;
  const __half f = per_position ? s[k / c * size + p] : s[k];
  prev_delta[i] = add_grad(prev_delta[i], __fmul_rn(__half2float(delta[i]), __half2float(f)));
}

// One thread per reduced value q: a (item, channel) pair or an (item, position) pair.
__global__ void scale_delta_kernel(size_t n, int c, int size, int per_position, const __half* input,
                                   const __half* delta, __half* scale_delta) {
  const size_t q = ORVA_INDEX();
  if (q >= n) return;
  float sum = 0.f;
  if (!per_position) {
    for (int p = 0; p < size; ++p)
      sum = __fadd_rn(sum, __fmul_rn(__half2float(delta[q * size + p]), __half2float(input[q * size + p])));
  } else {
    const size_t b = q / size, p = q % size;
    for (int ch = 0; ch < c; ++ch) {
      const size_t i = (b * c + ch) * size + p;
      sum = __fadd_rn(sum, __fmul_rn(__half2float(delta[i]), __half2float(input[i])));
    }
  }
  scale_delta[q] = add_grad(scale_delta[q], sum);
}

__global__ void dropout_kernel(size_t n, const __half* input, const float* rand, float prob, float scale,
                               __half* output) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  output[i] = rand[i] < prob ? __ushort_as_half(0) : __float2half_rn(__fmul_rn(__half2float(input[i]), scale));
}

__global__ void dropout_backward_kernel(size_t n, const __half* delta, const float* rand, float prob, float scale,
                                        __half* prev_delta) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  if (rand[i] >= prob) prev_delta[i] = add_grad(prev_delta[i], __fmul_rn(__half2float(delta[i]), scale));
}

__global__ void prelu_kernel(size_t n, int c, int size, const __half* input, const __half* slope, __half* output) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const __half x = input[i];
  output[i] = __half2float(x) > 0.f ? x : hmul(x, slope[i / size % c]);
}

__global__ void prelu_backward_kernel(size_t n, int c, int size, const __half* input, const __half* slope,
                                      const __half* delta, __half* prev_delta) {
  const size_t i = ORVA_INDEX();
  if (i >= n) return;
  const float d = __half2float(delta[i]);
  const float g = __half2float(input[i]) > 0.f ? d : __fmul_rn(d, __half2float(slope[i / size % c]));
  prev_delta[i] = add_grad(prev_delta[i], g);
}

__global__ void prelu_slope_kernel(int batch, int c, int size, const __half* input, const __half* delta,
                                   __half* slope_delta) {
  const size_t ch = ORVA_INDEX();
  if (ch >= (size_t)c) return;
  float sum = 0.f;
  for (int b = 0; b < batch; ++b)
    for (int p = 0; p < size; ++p) {
      const size_t i = ((size_t)b * c + ch) * size + p;
      const float x = __half2float(input[i]);
      if (x <= 0.f) sum = __fadd_rn(sum, __fmul_rn(__half2float(delta[i]), x));
    }
  slope_delta[ch] = add_grad(slope_delta[ch], sum);
}

}  // namespace

namespace gpu {
namespace tensor {

void upsample(void* handle, int batch, int w, int h, int c, int stride, const Ftype* input, Ftype* output) {
  const size_t n = (size_t)batch * c * h * w * stride * stride;
  ORVA_LAUNCH(upsample_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(n, w, h, stride, as_device(input),
                                                                               as_device(output));
  CHECK_LAUNCH();
}

void upsample_backward(void* handle, int batch, int w, int h, int c, int stride, const Ftype* delta,
                       Ftype* prev_delta) {
  const size_t n = (size_t)batch * c * h * w;
  ORVA_LAUNCH(upsample_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, w, h, stride, as_device(delta), as_device(prev_delta));
  CHECK_LAUNCH();
}

void resize(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, float sx, float sy,
            int half_pixel, const Ftype* input, Ftype* output) {
  const size_t n = (size_t)batch * c * out_w * out_h;
  ORVA_LAUNCH(resize_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, in_w, in_h, out_w, out_h, sx, sy, half_pixel, as_device(input), as_device(output));
  CHECK_LAUNCH();
}

void resize_backward(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, float sx, float sy,
                     int half_pixel, const Ftype* delta, Ftype* prev_delta) {
  const size_t n = (size_t)batch * c * in_w * in_h;
  ORVA_LAUNCH(resize_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, in_w, in_h, out_w, out_h, sx, sy, half_pixel, as_device(delta), as_device(prev_delta));
  CHECK_LAUNCH();
}

void add_scaled(void* handle, int n, Ftype alpha, const Ftype* x, Ftype beta, const Ftype* y, Ftype* out) {
  ORVA_LAUNCH(add_scaled_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, __ushort_as_half(alpha.__x), as_device(x), __ushort_as_half(beta.__x), as_device(y), as_device(out));
  CHECK_LAUNCH();
}

void scale(void* handle, int batch, int c, int size, int per_position, const Ftype* input, const Ftype* s,
           Ftype* output) {
  const size_t n = (size_t)batch * c * size;
  ORVA_LAUNCH(scale_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(n, c, size, per_position,
                                                                           as_device(input), as_device(s),
                                                                           as_device(output));
  CHECK_LAUNCH();
}

void scale_backward(void* handle, int batch, int c, int size, int per_position, const Ftype* input, const Ftype* s,
                    const Ftype* delta, Ftype* prev_delta, Ftype* scale_delta) {
  const size_t n = (size_t)batch * c * size;
  if (prev_delta) {
    ORVA_LAUNCH(scale_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
        n, c, size, per_position, as_device(s), as_device(delta), as_device(prev_delta));
    CHECK_LAUNCH();
  }
  if (scale_delta) {
    const size_t m = (size_t)batch * (per_position ? size : c);
    ORVA_LAUNCH(scale_delta_kernel, ORVA_GRID(m), ORVA_BLOCK, 0, stream_of(handle))(
        m, c, size, per_position, as_device(input), as_device(delta), as_device(scale_delta));
    CHECK_LAUNCH();
  }
}

void dropout(void* handle, int n, const Ftype* input, const float* rand, float prob, float scale, Ftype* output) {
  ORVA_LAUNCH(dropout_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(n, as_device(input), rand, prob, scale,
                                                                             as_device(output));
  CHECK_LAUNCH();
}

void dropout_backward(void* handle, int n, const Ftype* delta, const float* rand, float prob, float scale,
                      Ftype* prev_delta) {
  ORVA_LAUNCH(dropout_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
      n, as_device(delta), rand, prob, scale, as_device(prev_delta));
  CHECK_LAUNCH();
}

void prelu(void* handle, int batch, int c, int size, const Ftype* input, const Ftype* slope, Ftype* output) {
  const size_t n = (size_t)batch * c * size;
  ORVA_LAUNCH(prelu_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(n, c, size, as_device(input),
                                                                           as_device(slope), as_device(output));
  CHECK_LAUNCH();
}

void prelu_backward(void* handle, int batch, int c, int size, const Ftype* input, const Ftype* slope,
                    const Ftype* delta, Ftype* prev_delta, Ftype* slope_delta) {
  const size_t n = (size_t)batch * c * size;
  if (prev_delta) {
    ORVA_LAUNCH(prelu_backward_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(
        n, c, size, as_device(input), as_device(slope), as_device(delta), as_device(prev_delta));
    CHECK_LAUNCH();
  }
  if (slope_delta) {
    ORVA_LAUNCH(prelu_slope_kernel, ORVA_GRID(c), ORVA_BLOCK, 0, stream_of(handle))(
        batch, c, size, as_device(input), as_device(delta), as_device(slope_delta));
    CHECK_LAUNCH();
  }
}

}  // namespace tensor
}  // namespace gpu
