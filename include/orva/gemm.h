// Matrix products and the image-to-column unrolling around them.
// Every launcher takes the network's context (CudaHandle*, as void*) first, enqueues its
// work on that context's backend and returns; tensors are arrays of Ftype in that backend's
// memory, laid out batch, channel, row, column (column fastest).
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

ORVA_API_END
