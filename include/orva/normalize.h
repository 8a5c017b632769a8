// Per-channel operations: bias, scale, the normalisation statistics and their gradients.
// Every launcher takes the network's context (CudaHandle*, as void*) first, enqueues its
// work on that context's backend and returns; tensors are arrays of Ftype in that backend's
// memory, laid out batch, channel, row, column (column fastest).
#pragma once
#include "orva/export.h"
#include <cstddef>
#include "orva/float16.h"

ORVA_API_BEGIN

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

ORVA_API_END
