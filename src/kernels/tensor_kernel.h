// Twins of the layout and broadcast operations: namespace gpu (tensor_kernel.cu) and
// namespace cpu (tensor_host.cpp); tensor.cpp has checked the arguments.
#pragma once
#include "orva/float16.h"

#define ORVA_TENSOR_TWINS                                                                                      \
  void upsample(void* handle, int batch, int w, int h, int c, int stride, const Ftype* input, Ftype* output);  \
  void upsample_backward(void* handle, int batch, int w, int h, int c, int stride, const Ftype* delta,        \
                         Ftype* prev_delta);                                                                 \
  void resize(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, float sx, float sy,  \
              int half_pixel, const Ftype* input, Ftype* output);                                          \
  void resize_backward(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, float sx,   \
                       float sy, int half_pixel, const Ftype* delta, Ftype* prev_delta);                    \
  void add_scaled(void* handle, int n, Ftype alpha, const Ftype* x, Ftype beta, const Ftype* y, Ftype* out);  \
  void scale(void* handle, int batch, int c, int size, int per_position, const Ftype* input, const Ftype* s,  \
             Ftype* output);                                                                                 \
  void scale_backward(void* handle, int batch, int c, int size, int per_position, const Ftype* input,         \
                      const Ftype* s, const Ftype* delta, Ftype* prev_delta, Ftype* scale_delta);            \
  void dropout(void* handle, int n, const Ftype* input, const float* rand, float prob, float scale,            \
               Ftype* output);                                                                               \
  void dropout_backward(void* handle, int n, const Ftype* delta, const float* rand, float prob, float scale,  \
                        Ftype* prev_delta);                                                                  \
  void prelu(void* handle, int batch, int c, int size, const Ftype* input, const Ftype* slope, Ftype* output); \
  void prelu_backward(void* handle, int batch, int c, int size, const Ftype* input, const Ftype* slope,       \
                      const Ftype* delta, Ftype* prev_delta, Ftype* slope_delta);

namespace cpu {
namespace tensor {
ORVA_TENSOR_TWINS
}  // namespace tensor
}  // namespace cpu
namespace gpu {
namespace tensor {
ORVA_TENSOR_TWINS
}  // namespace tensor
}  // namespace gpu

#undef ORVA_TENSOR_TWINS
