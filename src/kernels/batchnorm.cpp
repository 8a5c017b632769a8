#include "orva/batchnorm.h"

#include "backend/backend.h"
#include "kernels/batchnorm_kernel.h"

void batchnorm_forward_training(void* handle, Ftype* x, Ftype* y, Ftype* scale, Ftype* bias, int batch, int n,
                                int size, Ftype* mean_rolling, Ftype* var_rolling, Ftype* mean, Ftype* var,
                                float* param32) {
  if (batch < 1 || n < 1 || size < 1) return;
  ORVA_DISPATCH(handle, batchnorm_forward_training, x, y, scale, bias, batch, n, size, mean_rolling, var_rolling,
                mean, var, param32);
}

void batchnorm_backward(void* handle, Ftype* x, Ftype* dy, Ftype* dx, Ftype* scale, Ftype* scale_update,
                        Ftype* bias_update, int batch, int n, int size, Ftype* mean, Ftype* var, Ftype* mean_delta,
                        Ftype* var_delta, float* param32) {
  if (batch < 1 || n < 1 || size < 1) return;
  ORVA_DISPATCH(handle, batchnorm_backward, x, dy, dx, scale, scale_update, bias_update, batch, n, size, mean, var,
                mean_delta, var_delta, param32);
}

void batchnorm_fold(void* handle, Ftype* weight, Ftype* bias, Ftype* scale, Ftype* mean_rolling,
                    Ftype* var_rolling, int n, int size) {
  if (n < 1) return;
  ORVA_DISPATCH(handle, batchnorm_fold, weight, bias, scale, mean_rolling, var_rolling, n, size);
}
