// Tensor operations of the detection heads (region, qregion, detobj, heatmap). Same
// conventions as orva/blas.h: context first, work enqueued on its backend.
#pragma once
#include "orva/float16.h"


// Logistic function in place on strided runs: for b < batch, g < groups the n values
// x[b * batch_offset + g * group_offset + k], k = 0 .. n-1. When scale > 1 each result y
// becomes y * scale + (1 - scale) / 2 (centre offsets stretched past the cell edges).
void region_logistic(void* handle, Ftype* x, int batch, int batch_offset, int groups, int group_offset, int n,
                     float scale);
// delta *= y * (1 - y) over the same runs, y being the logistic output.
void region_logistic_gradient(void* handle, const Ftype* y, Ftype* delta, int batch, int batch_offset, int groups,
                              int group_offset, int n);

