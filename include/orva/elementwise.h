// Element-wise operations on one or two vectors.
// Every launcher takes the network's context (CudaHandle*, as void*) first, enqueues its
// work on that context's backend and returns; tensors are arrays of Ftype in that backend's
// memory, laid out batch, channel, row, column (column fastest).
#pragma once
#include "orva/export.h"
#include <cstddef>
#include "orva/float16.h"

ORVA_API_BEGIN

void blas_copy(void* handle, int N, Ftype* X, Ftype* Y);
void blas_fill(void* handle, int N, float ALPHA, Ftype* X);
void blas_scale(void* handle, int N, float ALPHA, Ftype* X);
void blas_scale_add(void* handle, int N, float ALPHA, float BETA, Ftype* X);
void blas_axpy(void* handle, int N, float ALPHA, Ftype* X, Ftype* Y);
void blas_constrain(void* handle, int N, float ALPHA, Ftype* X);
float blas_sum(void* handle, int N, Ftype* X);

ORVA_API_END
