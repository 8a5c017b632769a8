// Batch normalisation: training statistics and gradients (cuDNN on CUDA, the per-channel
// tensor primitives on the host) and the fold of the statistics into weights. Every
// launcher takes the network's context first and enqueues on its backend.
#pragma once
#include "orva/export.h"
#include "orva/float16.h"

ORVA_API_BEGIN

// Shapes: batch samples of n channels with size spatial positions each.
// y = scale * (x - mean) / sqrt(var + eps) + bias with the statistics of this batch; the
// running statistics move by 0.001 of the batch values; mean and var keep what backward needs.
// param32 is 6 * n floats of backend scratch owned by the caller.
void batchnorm_forward_training(void* handle, Ftype* x, Ftype* y, Ftype* scale, Ftype* bias, int batch, int n,
                                int size, Ftype* mean_rolling, Ftype* var_rolling, Ftype* mean, Ftype* var,
                                float* param32);
// dx from dy through the normalisation; scale_update and bias_update accumulate.
void batchnorm_backward(void* handle, Ftype* x, Ftype* dy, Ftype* dx, Ftype* scale, Ftype* scale_update,
                        Ftype* bias_update, int batch, int n, int size, Ftype* mean, Ftype* var, Ftype* mean_delta,
                        Ftype* var_delta, float* param32);
// bias[f] -= mean[f] * k[f]; weight[f * size + i] *= k[f]; k[f] = scale[f] / (sqrt(var[f]) + eps).
void batchnorm_fold(void* handle, Ftype* weight, Ftype* bias, Ftype* scale, Ftype* mean_rolling,
                    Ftype* var_rolling, int n, int size);

ORVA_API_END
