// Twins of the tensor operations: namespace gpu (CUDA kernels, blas_kernel.cu) and namespace
// cpu (host loops, blas_host.cpp), same names and arguments. The launchers in blas.cpp have
// already checked the arguments and converted scalars that the kernels take as half.
#pragma once
#include "orva/float16.h"

#define ORVA_BLAS_TWINS                                                                                       \
  void gemm(void* handle, int TA, int TB, int M, int N, int K, float ALPHA, const Ftype* A, int lda,         \
            const Ftype* B, int ldb, float BETA, Ftype* C, int ldc);                                         \
  void im2col(void* handle, const Ftype* im, int channels, int height, int width, int ksize, int stride,     \
              int pad, Ftype* data_col);                                                                     \
  void col2im(void* handle, const Ftype* data_col, int channels, int height, int width, int ksize,          \
              int stride, int pad, Ftype* data_im);                                                          \
  void copy(void* handle, int N, const Ftype* X, Ftype* Y);                                                  \
  void fill(void* handle, int N, Ftype alpha, Ftype* X);                                                     \
  void scale(void* handle, int N, Ftype alpha, Ftype* X);                                                    \
  void scale_add(void* handle, int N, float alpha, float beta, Ftype* X);                                   \
  void axpy(void* handle, int N, Ftype alpha, const Ftype* X, Ftype* Y);                                     \
  void constrain(void* handle, int N, Ftype alpha, Ftype* X);                                                \
  float sum(void* handle, int N, const Ftype* X);                                                            \
  void add_bias(void* handle, Ftype* output, const Ftype* bias, int batch, int n, int size);                 \
  void scale_bias(void* handle, Ftype* output, const Ftype* scale, int batch, int n, int size);              \
  void scale_add_bias(void* handle, Ftype* output, const Ftype* scales, const Ftype* bias, int batch, int n, \
                      int size);                                                                             \
  void backward_bias(void* handle, Ftype* bias_update, const Ftype* delta, int batch, int n, int size);      \
  void backward_scale(void* handle, const Ftype* x_norm, const Ftype* delta, int batch, int n, int size,     \
                      Ftype* scale_updates);                                                                 \
  void mean(void* handle, const Ftype* x, int batch, int filters, int spatial, Ftype* mean);                 \
  void variance(void* handle, const Ftype* x, const Ftype* mean, int batch, int filters, int spatial,        \
                Ftype* var);                                                                                 \
  void normalize(void* handle, Ftype* x, const Ftype* mean, const Ftype* var, int batch, int filters,        \
                 int spatial);                                                                               \
  void mean_delta(void* handle, const Ftype* delta, const Ftype* var, int batch, int filters, int spatial,   \
                  Ftype* mean_delta);                                                                        \
  void variance_delta(void* handle, const Ftype* x, const Ftype* delta, const Ftype* mean, const Ftype* var, \
                      int batch, int filters, int spatial, Ftype* var_delta);                                \
  void normalize_delta(void* handle, const Ftype* x, const Ftype* mean, const Ftype* var,                    \
                       const Ftype* mean_delta, const Ftype* var_delta, int batch, int filters, int spatial, \
                       Ftype* delta);                                                                        \
  void shortcut(void* handle, int batch, int w1, int h1, int c1, const Ftype* add, int w2, int h2, int c2,   \
                Ftype alpha, Ftype beta, Ftype* out);                                                        \
  void reorg(void* handle, const Ftype* x, int w, int h, int c, int batch, int stride, int forward,          \
             Ftype* out);                                                                                    \
  void flatten(void* handle, const Ftype* x, int spatial, int layers, int batch, int forward, Ftype* out);  \
  void softmax_strided(void* handle, const Ftype* input, int n, int batch, int batch_offset, int groups,    \
                       int group_offset, int stride, float temp, Ftype* output);                             \
  void softmax_mapped(void* handle, const Ftype* input, int batch, int batch_offset, int groups,            \
                      const int* gmap, float temp, Ftype* output);                                           \
  void softmax2d(void* handle, const Ftype* input, int h, int w, Ftype* output);                             \
  void softmax_backward(void* handle, const Ftype* output, const Ftype* delta, int n, Ftype* odelta);        \
  void softmax2d_backward(void* handle, const Ftype* output, const Ftype* delta, int h, int w, Ftype* odelta);

namespace cpu {
ORVA_BLAS_TWINS
}  // namespace cpu
namespace gpu {
ORVA_BLAS_TWINS
}  // namespace gpu

#undef ORVA_BLAS_TWINS
