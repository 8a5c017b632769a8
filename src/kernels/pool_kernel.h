// Twins of the pooling operations: namespace gpu (pool_kernel.cu) and namespace cpu
// (pool_host.cpp). The launchers in pool.cpp have checked the shapes; out_h and out_w are
// the windowed output sides.
#pragma once
#include "orva/float16.h"

#define ORVA_POOL_TWINS                                                                                        \
  void max_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size,    \
                   int stride, int pad, const Ftype* input, Ftype* output, int* indexes);                    \
  void max_backward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size,   \
                    int stride, int pad, const Ftype* delta, const int* indexes, Ftype* prev_delta);         \
  void avg_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size,    \
                   int stride, int pad, const Ftype* input, Ftype* output);                                  \
  void avg_backward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size,   \
                    int stride, int pad, const Ftype* delta, Ftype* prev_delta);                             \
  void global_forward(void* handle, int planes, int plane, int square, int tmin, int tmax,                   \
                      const Ftype* input, int* order, Ftype* output);                                        \
  void global_backward(void* handle, int planes, int plane, int square, int tmin, int tmax,                  \
                       const Ftype* input, const int* order, const Ftype* delta, Ftype* prev_delta);

namespace cpu {
namespace pool {
ORVA_POOL_TWINS
}  // namespace pool
}  // namespace cpu
namespace gpu {
namespace pool {
ORVA_POOL_TWINS
}  // namespace pool
}  // namespace gpu

#undef ORVA_POOL_TWINS
