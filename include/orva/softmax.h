// Softmax over groups, over a plane, and their gradients.
// Every launcher takes the network's context (CudaHandle*, as void*) first, enqueues its
// work on that context's backend and returns; tensors are arrays of Ftype in that backend's
// memory, laid out batch, channel, row, column (column fastest).
#pragma once
#include "orva/export.h"
#include <cstddef>
#include "orva/float16.h"

ORVA_API_BEGIN

// Softmax family: exponentials in float, the maximum subtracted first.
void blas_softmax(void* handle, Ftype* input, int n, int batch, int batch_offset, int groups, int group_offset,
                  int stride, float temp, Ftype* output);
// gmap: backend int table built by the softmax layer (layout documented in docs/KERNELS.md).
void blas_softmax(void* handle, Ftype* input, int batch, int batch_offset, int groups, int* gmap, float temp,
                  Ftype* output);
void blas_softmax2d(void* handle, Ftype* input, int h, int w, Ftype* output);
void blas_softmax_backward(void* handle, Ftype* output, Ftype* delta, int n, Ftype* odelta);
void blas_softmax2d_backward(void* handle, Ftype* output, Ftype* delta, int h, int w, Ftype* odelta);
// Kept for old callers: both throw std::runtime_error.
void softmax_device();
void softmax_device(Ftype* input, int n, Ftype* output);

ORVA_API_END
