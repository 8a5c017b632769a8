// Tensor operations. Every launcher takes the network's context (CudaHandle*, as void*)
// first, enqueues its work on that context's backend and returns; tensors are arrays of
// Ftype in that backend's memory, laid out batch, channel, row, column (column fastest).
#pragma once
#include "orva/export.h"
#include <cstddef>
#include "orva/float16.h"

ORVA_API_BEGIN

// Matrix product, row-major: C[M x N] = ALPHA * op(A)[M x K] * op(B)[K x N] + BETA * C.
void blas_gemm(void* handle, int TA, int TB, int M, int N, int K, float ALPHA, Ftype* A, int lda, Ftype* B,
               int ldb, float BETA, Ftype* C, int ldc);
void blas_im2col(void* handle, Ftype* im, int channels, int height, int width, int ksize, int stride, int pad,
                 Ftype* data_col);
void blas_col2im(void* handle, Ftype* data_col, int channels, int height, int width, int ksize, int stride,
                 int pad, Ftype* data_im);

// Element-wise on one vector.
void blas_copy(void* handle, int N, Ftype* X, Ftype* Y);
void blas_fill(void* handle, int N, float ALPHA, Ftype* X);
void blas_scale(void* handle, int N, float ALPHA, Ftype* X);
void blas_scale_add(void* handle, int N, float ALPHA, float BETA, Ftype* X);
void blas_axpy(void* handle, int N, float ALPHA, Ftype* X, Ftype* Y);
void blas_constrain(void* handle, int N, float ALPHA, Ftype* X);
float blas_sum(void* handle, int N, Ftype* X);

// Per channel.
void blas_add_bias(void* handle, Ftype* output, Ftype* bias, int batch, int n, int size);
void blas_scale_bias(void* handle, Ftype* output, Ftype* scale, int batch, int n, int size);
void blas_scale_add_bias(void* handle, Ftype* output, Ftype* scales, Ftype* bias, int batch, int n, int size);
void blas_backward_bias(void* handle, Ftype* bias_update, Ftype* delta, int batch, int n, int size);
void blas_backward_scale(void* handle, Ftype* x_norm, Ftype* delta, int batch, int n, int size,
                         Ftype* scale_updates);
void blas_mean(void* handle, Ftype* x, int batch, int filters, int spatial, Ftype* mean);
void blas_variance(void* handle, Ftype* x, Ftype* mean, int batch, int filters, int spatial, Ftype* var);
void blas_normalize(void* handle, Ftype* x, Ftype* mean, Ftype* var, int batch, int filters, int spatial);
void blas_mean_delta(void* handle, Ftype* delta, Ftype* var, int batch, int filters, int spatial,
                     Ftype* mean_delta);
void blas_variance_delta(void* handle, Ftype* x, Ftype* delta, Ftype* mean, Ftype* var, int batch, int filters,
                         int spatial, Ftype* var_delta);
void blas_normalize_delta(void* handle, Ftype* x, Ftype* mean, Ftype* var, Ftype* mean_delta, Ftype* var_delta,
                          int batch, int filters, int spatial, Ftype* delta);

// Layout.
void blas_shortcut(void* handle, int batch, int w1, int h1, int c1, Ftype* add, int w2, int h2, int c2,
                   float alpha, float beta, Ftype* out);
void blas_reorg(void* handle, Ftype* x, int w, int h, int c, int batch, int stride, int forward, Ftype* out);
void blas_flatten(void* handle, Ftype* x, int spatial, int layers, int batch, int forward, Ftype* out);

// Softmax family: exponentials in float, the maximum subtracted first.
void blas_softmax(void* handle, Ftype* input, int n, int batch, int batch_offset, int groups, int group_offset,
                  int stride, float temp, Ftype* output);
// gmap: backend int table built by the softmax layer (layout documented in docs/KERNELS.md).
void blas_softmax(void* handle, Ftype* input, int batch, int batch_offset, int groups, int* gmap, float temp,
                  Ftype* output);
void blas_softmax2d(void* handle, Ftype* input, int h, int w, Ftype* output);
void blas_softmax_backward(void* handle, Ftype* output, Ftype* delta, int n, Ftype* odelta);
void blas_softmax2d_backward(void* handle, Ftype* output, Ftype* delta, int h, int w, Ftype* odelta);
// Traps kept for old callers: both end the process with status 1.
void softmax_device();
void softmax_device(Ftype* input, int n, Ftype* output);

// 8-bit quantisation (docs/QUANTIZATION.md). Byte buffers are backend memory. Values round
// to nearest (ties to even) and clamp to the byte range; NaN quantises to 0.
// Weights: [-thresh, thresh] onto -127..127.
void quant_int8(void* handle, Ftype* x, int n, float thresh, signed char* q);
// Inputs: [0, iq] onto 0..254 when iq > 0 (negatives give 0), [-|iq|, |iq|] onto -127..127
// when iq < 0 (stored as two's complement bytes), following the layers' threshold sign.
void quant_uint8(void* handle, Ftype* x, int n, float iq, unsigned char* q);
// Undoes a quantisation: x = q * scale (scale = thresh / 127 signed, iq / 254 unsigned).
void quant_float(void* handle, const signed char* q, int n, float scale, Ftype* x);
void quant_float(void* handle, const unsigned char* q, int n, float scale, Ftype* x);
// Threshold for a weight or input tensor: the largest magnitude, NaN ignored; *is_unsigned
// says whether no value is negative (so the unsigned mapping loses nothing). Waits for the
// backend; -1 for bad arguments.
float quant_thresh(void* handle, Ftype* x, int n, bool* is_unsigned);
// Mean absolute difference between x and its signed quantisation with thresh, restored, in
// the units of x. Waits for the backend; -1 for bad arguments.
float get_qerror(void* handle, Ftype* x, int n, float thresh);

ORVA_API_END
