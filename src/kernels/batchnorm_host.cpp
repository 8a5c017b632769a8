// Host batch normalisation. The statistics are the per-channel primitives' (the variance is
// the unbiased estimate), and the host keeps that variance itself in `var` where the device
// keeps cuDNN's saved inverse deviation: each backend reads back only what it wrote.
#include <tbb/parallel_for.h>

#include <cmath>

#include "kernels/batchnorm_kernel.h"
#include "kernels/half_math.h"
#include "orva/elementwise.h"
#include "orva/normalize.h"

namespace cpu {

void batchnorm_forward_training(void* handle, Ftype* x, Ftype* y, Ftype* scale, Ftype* bias, int batch, int n,
                                int size, Ftype* mean_rolling, Ftype* var_rolling, Ftype* mean, Ftype* var,
                                float* param32) {
  blas_mean(handle, x, batch, n, size, mean);
  blas_variance(handle, x, mean, batch, n, size, var);
  if (y != x) blas_copy(handle, batch * n * size, x, y);
  blas_normalize(handle, y, mean, var, batch, n, size);
  blas_scale_add_bias(handle, y, scale, bias, batch, n, size);
  const float f = (float)kBatchnormAverageFactor;
  blas_scale(handle, n, 1.f - f, mean_rolling);
  blas_axpy(handle, n, f, mean, mean_rolling);
  blas_scale(handle, n, 1.f - f, var_rolling);
  blas_axpy(handle, n, f, var, var_rolling);
}

void batchnorm_backward(void* handle, Ftype* x, Ftype* dy, Ftype* dx, Ftype* scale, Ftype* scale_update,
                        Ftype* bias_update, int batch, int n, int size, Ftype* mean, Ftype* var, Ftype* mean_delta,
                        Ftype* var_delta, float* param32) {
  const int count = batch * n * size;
  // dx first holds the normalised input for the scale gradient.
  blas_copy(handle, count, x, dx);
  blas_normalize(handle, dx, mean, var, batch, n, size);
  blas_backward_scale(handle, dx, dy, batch, n, size, scale_update);
  blas_backward_bias(handle, bias_update, dy, batch, n, size);
  blas_copy(handle, count, dy, dx);
  blas_scale_bias(handle, dx, scale, batch, n, size);
  blas_mean_delta(handle, dx, var, batch, n, size, mean_delta);
  blas_variance_delta(handle, x, dx, mean, var, batch, n, size, var_delta);
  // The variance was divided by m - 1, the delta kernel divides by m.
  const int m = batch * size;
  if (m > 1) blas_scale(handle, n, (float)m / (float)(m - 1), var_delta);
  blas_normalize_delta(handle, x, mean, var, mean_delta, var_delta, batch, n, size, dx);
}

void batchnorm_fold(void* handle, Ftype* weight, Ftype* bias, Ftype* scale, Ftype* mean_rolling,
                    Ftype* var_rolling, int n, int size) {
  tbb::parallel_for(tbb::blocked_range<int>(0, n), [&](const tbb::blocked_range<int>& r) {
    for (int f = r.begin(); f != r.end(); ++f) {
      const float k = h2f(scale[f]) / (std::sqrt(h2f(var_rolling[f])) + kBatchnormEpsilon);
      bias[f] = f2h(h2f(bias[f]) - h2f(f2h(h2f(mean_rolling[f]) * k)));
      const _half hk = f2h(k);
      Ftype* w = weight + (size_t)f * size;
      for (int i = 0; i < size; ++i) w[i] = hmul(w[i], hk);
    }
  });
}

}  // namespace cpu
