// Operations that move elements between layouts: residual sums across shapes, space to
// depth, channel-last flattening.
// Every launcher takes the network's context (CudaHandle*, as void*) first, enqueues its
// work on that context's backend and returns; tensors are arrays of Ftype in that backend's
// memory, laid out batch, channel, row, column (column fastest).
#pragma once
#include "orva/export.h"
#include <cstddef>
#include "orva/float16.h"

ORVA_API_BEGIN

void blas_shortcut(void* handle, int batch, int w1, int h1, int c1, Ftype* add, int w2, int h2, int c2,
                   float alpha, float beta, Ftype* out);
void blas_reorg(void* handle, Ftype* x, int w, int h, int c, int batch, int stride, int forward, Ftype* out);
void blas_flatten(void* handle, Ftype* x, int spatial, int layers, int batch, int forward, Ftype* out);

ORVA_API_END
