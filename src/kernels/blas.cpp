// Public tensor launchers: argument checks, float scalars narrowed to half where the kernel
// takes a half, then the backend's twin. A bad argument throws std::runtime_error naming the
// launcher, the argument and its value, before any memory is touched.
#include "orva/blas.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "base/error.h"
#include "backend/backend.h"
#include "kernels/blas_kernel.h"
#include "orva/util.h"

namespace {

// Scalars become halves with the exact host table, so both backends see the same value.
Ftype to_half(float v) { return Ftype{float2half_cpu(v)}; }

// True when the count is usable; zero is a valid empty call and yields false without a message.
bool count_ok(const char* fn, const char* key, int v) {
  if (v < 0) ORVA_THROW("%s: %s = %d must not be negative", fn, key, v);
  return v > 0;
}

bool positive(const char* fn, const char* key, int v) {
  if (v <= 0) ORVA_THROW("%s: %s = %d must be positive", fn, key, v);
  return v > 0;
}

bool at_least(const char* fn, const char* key, int v, const char* what, int min) {
  if (v < min) ORVA_THROW("%s: %s = %d is below %s = %d", fn, key, v, what, min);
  return v >= min;
}

bool not_null(const char* fn, const char* key, const void* p) {
  if (!p) ORVA_THROW("%s: %s is null", fn, key);
  return p != nullptr;
}

bool usable_temperature(const char* fn, float temp) {
  const bool ok = std::isfinite(temp) && temp != 0.f;
  if (!ok) ORVA_THROW("%s: temperature = %g must be finite and non-zero", fn, temp);
  return ok;
}

// Shape checks shared by the per-channel launchers.
bool channel_shape_ok(const char* fn, int batch, int n, int size) {
  const bool b = count_ok(fn, "batch", batch), f = count_ok(fn, "filters", n), s = count_ok(fn, "size", size);
  return b && f && s;
}

}  // namespace

void blas_gemm(void* handle, int TA, int TB, int M, int N, int K, float ALPHA, Ftype* A, int lda, Ftype* B,
               int ldb, float BETA, Ftype* C, int ldc) {
  const char* fn = "blas_gemm";
  if (!(count_ok(fn, "M", M) & count_ok(fn, "N", N)) || K < 0) {
    if (K < 0) ORVA_THROW("%s: K = %d must not be negative", fn, K);
    return;
  }
  // Row-major: the leading dimension is at least the stored row length of each operand (and
  // at least 1, which cuBLAS demands even for an empty K).
  const int a_cols = std::max(1, TA ? M : K), b_cols = std::max(1, TB ? K : N);
  if (!(at_least(fn, "lda", lda, TA ? "M" : "K", a_cols) & at_least(fn, "ldb", ldb, TB ? "K" : "N", b_cols) &
        at_least(fn, "ldc", ldc, "N", N)))
    return;
  if (!not_null(fn, "C", C) || (K > 0 && !(not_null(fn, "A", A) & not_null(fn, "B", B)))) return;
  ORVA_DISPATCH(handle, gemm, TA, TB, M, N, K, ALPHA, A, lda, B, ldb, BETA, C, ldc);
}

static bool conv_shape_ok(const char* fn, int channels, int height, int width, int ksize, int stride, int pad) {
  if (!(positive(fn, "channels", channels) & positive(fn, "height", height) & positive(fn, "width", width) &
        positive(fn, "ksize", ksize) & positive(fn, "stride", stride)))
    return false;
  if (pad < 0)
    ORVA_THROW("%s: pad = %d must not be negative", fn, pad);
  if (height + 2 * pad < ksize || width + 2 * pad < ksize)
    ORVA_THROW("%s: ksize = %d exceeds the padded image %d x %d", fn, ksize, height + 2 * pad, width + 2 * pad);
  return true;
}

void blas_im2col(void* handle, Ftype* im, int channels, int height, int width, int ksize, int stride, int pad,
                 Ftype* data_col) {
  const char* fn = "blas_im2col";
  if (!conv_shape_ok(fn, channels, height, width, ksize, stride, pad)) return;
  if (!(not_null(fn, "im", im) & not_null(fn, "data_col", data_col))) return;
  ORVA_DISPATCH(handle, im2col, im, channels, height, width, ksize, stride, pad, data_col);
}

void blas_col2im(void* handle, Ftype* data_col, int channels, int height, int width, int ksize, int stride,
                 int pad, Ftype* data_im) {
  const char* fn = "blas_col2im";
  if (!conv_shape_ok(fn, channels, height, width, ksize, stride, pad)) return;
  if (!(not_null(fn, "data_col", data_col) & not_null(fn, "data_im", data_im))) return;
  ORVA_DISPATCH(handle, col2im, data_col, channels, height, width, ksize, stride, pad, data_im);
}

void blas_copy(void* handle, int N, Ftype* X, Ftype* Y) {
  if (!count_ok("blas_copy", "N", N) || !(not_null("blas_copy", "X", X) & not_null("blas_copy", "Y", Y))) return;
  ORVA_DISPATCH(handle, copy, N, X, Y);
}

void blas_fill(void* handle, int N, float ALPHA, Ftype* X) {
  if (!count_ok("blas_fill", "N", N) || !not_null("blas_fill", "X", X)) return;
  ORVA_DISPATCH(handle, fill, N, to_half(ALPHA), X);
}

void blas_scale(void* handle, int N, float ALPHA, Ftype* X) {
  if (!count_ok("blas_scale", "N", N) || !not_null("blas_scale", "X", X)) return;
  ORVA_DISPATCH(handle, scale, N, to_half(ALPHA), X);
}

void blas_scale_add(void* handle, int N, float ALPHA, float BETA, Ftype* X) {
  if (!count_ok("blas_scale_add", "N", N) || !not_null("blas_scale_add", "X", X)) return;
  ORVA_DISPATCH(handle, scale_add, N, ALPHA, BETA, X);
}

void blas_axpy(void* handle, int N, float ALPHA, Ftype* X, Ftype* Y) {
  if (!count_ok("blas_axpy", "N", N) || !(not_null("blas_axpy", "X", X) & not_null("blas_axpy", "Y", Y))) return;
  ORVA_DISPATCH(handle, axpy, N, to_half(ALPHA), X, Y);
}

void blas_constrain(void* handle, int N, float ALPHA, Ftype* X) {
  if (!count_ok("blas_constrain", "N", N) || !not_null("blas_constrain", "X", X)) return;
  ORVA_DISPATCH(handle, constrain, N, to_half(ALPHA), X);
}

float blas_sum(void* handle, int N, Ftype* X) {
  if (!count_ok("blas_sum", "N", N) || !not_null("blas_sum", "X", X)) return 0.f;
  return ORVA_DISPATCH(handle, sum, N, X);
}

void blas_add_bias(void* handle, Ftype* output, Ftype* bias, int batch, int n, int size) {
  const char* fn = "blas_add_bias";
  if (!channel_shape_ok(fn, batch, n, size) || !(not_null(fn, "output", output) & not_null(fn, "bias", bias))) return;
  ORVA_DISPATCH(handle, add_bias, output, bias, batch, n, size);
}

void blas_scale_bias(void* handle, Ftype* output, Ftype* scale, int batch, int n, int size) {
  const char* fn = "blas_scale_bias";
  if (!channel_shape_ok(fn, batch, n, size) || !(not_null(fn, "output", output) & not_null(fn, "scale", scale)))
    return;
  ORVA_DISPATCH(handle, scale_bias, output, scale, batch, n, size);
}

void blas_scale_add_bias(void* handle, Ftype* output, Ftype* scales, Ftype* bias, int batch, int n, int size) {
  const char* fn = "blas_scale_add_bias";
  if (!channel_shape_ok(fn, batch, n, size) ||
      !(not_null(fn, "output", output) & not_null(fn, "scales", scales) & not_null(fn, "bias", bias)))
    return;
  ORVA_DISPATCH(handle, scale_add_bias, output, scales, bias, batch, n, size);
}

void blas_backward_bias(void* handle, Ftype* bias_update, Ftype* delta, int batch, int n, int size) {
  const char* fn = "blas_backward_bias";
  if (!channel_shape_ok(fn, batch, n, size) ||
      !(not_null(fn, "bias_update", bias_update) & not_null(fn, "delta", delta)))
    return;
  ORVA_DISPATCH(handle, backward_bias, bias_update, delta, batch, n, size);
}

void blas_backward_scale(void* handle, Ftype* x_norm, Ftype* delta, int batch, int n, int size,
                         Ftype* scale_updates) {
  const char* fn = "blas_backward_scale";
  if (!channel_shape_ok(fn, batch, n, size) ||
      !(not_null(fn, "x_norm", x_norm) & not_null(fn, "delta", delta) & not_null(fn, "scale_updates", scale_updates)))
    return;
  ORVA_DISPATCH(handle, backward_scale, x_norm, delta, batch, n, size, scale_updates);
}

void blas_mean(void* handle, Ftype* x, int batch, int filters, int spatial, Ftype* mean) {
  const char* fn = "blas_mean";
  if (!channel_shape_ok(fn, batch, filters, spatial) || !(not_null(fn, "x", x) & not_null(fn, "mean", mean))) return;
  ORVA_DISPATCH(handle, mean, x, batch, filters, spatial, mean);
}

void blas_variance(void* handle, Ftype* x, Ftype* mean, int batch, int filters, int spatial, Ftype* var) {
  const char* fn = "blas_variance";
  if (!channel_shape_ok(fn, batch, filters, spatial) ||
      !(not_null(fn, "x", x) & not_null(fn, "mean", mean) & not_null(fn, "var", var)))
    return;
  ORVA_DISPATCH(handle, variance, x, mean, batch, filters, spatial, var);
}

void blas_normalize(void* handle, Ftype* x, Ftype* mean, Ftype* var, int batch, int filters, int spatial) {
  const char* fn = "blas_normalize";
  if (!channel_shape_ok(fn, batch, filters, spatial) ||
      !(not_null(fn, "x", x) & not_null(fn, "mean", mean) & not_null(fn, "var", var)))
    return;
  ORVA_DISPATCH(handle, normalize, x, mean, var, batch, filters, spatial);
}

void blas_mean_delta(void* handle, Ftype* delta, Ftype* var, int batch, int filters, int spatial,
                     Ftype* mean_delta) {
  const char* fn = "blas_mean_delta";
  if (!channel_shape_ok(fn, batch, filters, spatial) ||
      !(not_null(fn, "delta", delta) & not_null(fn, "var", var) & not_null(fn, "mean_delta", mean_delta)))
    return;
  ORVA_DISPATCH(handle, mean_delta, delta, var, batch, filters, spatial, mean_delta);
}

void blas_variance_delta(void* handle, Ftype* x, Ftype* delta, Ftype* mean, Ftype* var, int batch, int filters,
                         int spatial, Ftype* var_delta) {
  const char* fn = "blas_variance_delta";
  if (!channel_shape_ok(fn, batch, filters, spatial) ||
      !(not_null(fn, "x", x) & not_null(fn, "delta", delta) & not_null(fn, "mean", mean) & not_null(fn, "var", var) &
        not_null(fn, "var_delta", var_delta)))
    return;
  ORVA_DISPATCH(handle, variance_delta, x, delta, mean, var, batch, filters, spatial, var_delta);
}

void blas_normalize_delta(void* handle, Ftype* x, Ftype* mean, Ftype* var, Ftype* mean_delta, Ftype* var_delta,
                          int batch, int filters, int spatial, Ftype* delta) {
  const char* fn = "blas_normalize_delta";
  if (!channel_shape_ok(fn, batch, filters, spatial) ||
      !(not_null(fn, "x", x) & not_null(fn, "mean", mean) & not_null(fn, "var", var) &
        not_null(fn, "mean_delta", mean_delta) & not_null(fn, "var_delta", var_delta) & not_null(fn, "delta", delta)))
    return;
  ORVA_DISPATCH(handle, normalize_delta, x, mean, var, mean_delta, var_delta, batch, filters, spatial, delta);
}

void blas_shortcut(void* handle, int batch, int w1, int h1, int c1, Ftype* add, int w2, int h2, int c2,
                   float alpha, float beta, Ftype* out) {
  const char* fn = "blas_shortcut";
  if (!count_ok(fn, "batch", batch)) return;
  if (!(positive(fn, "w1", w1) & positive(fn, "h1", h1) & positive(fn, "c1", c1) & positive(fn, "w2", w2) &
        positive(fn, "h2", h2) & positive(fn, "c2", c2)))
    return;
  // Both step sizes follow the width ratio; shapes whose heights disagree with it would step
  // past the end of a tensor, so they are refused rather than read out of bounds.
  const int minw = std::min(w1, w2), minh = std::min(h1, h2);
  const int stride = std::max(w1 / w2, 1), sample = std::max(w2 / w1, 1);
  if ((minh - 1) * stride >= h1 || (minw - 1) * stride >= w1 || (minh - 1) * sample >= h2 ||
      (minw - 1) * sample >= w2) {
    ORVA_THROW("%s: %d x %d into %d x %d steps past a tensor (stride = %d, sample = %d from the widths)", fn, w1, h1,
               w2, h2, stride, sample);
  }
  if (!(not_null(fn, "add", add) & not_null(fn, "out", out))) return;
  ORVA_DISPATCH(handle, shortcut, batch, w1, h1, c1, add, w2, h2, c2, to_half(alpha), to_half(beta), out);
}

void blas_reorg(void* handle, Ftype* x, int w, int h, int c, int batch, int stride, int forward, Ftype* out) {
  const char* fn = "blas_reorg";
  if (!count_ok(fn, "batch", batch)) return;
  if (!(positive(fn, "w", w) & positive(fn, "h", h) & positive(fn, "c", c) & positive(fn, "stride", stride))) return;
  // Channels fold into stride x stride sub-positions; a remainder would address past the tensor.
  if (c % (stride * stride) != 0)
    ORVA_THROW("%s: c = %d is not a multiple of stride * stride = %d", fn, c, stride * stride);
  if (!(not_null(fn, "x", x) & not_null(fn, "out", out))) return;
  ORVA_DISPATCH(handle, reorg, x, w, h, c, batch, stride, forward, out);
}

void blas_flatten(void* handle, Ftype* x, int spatial, int layers, int batch, int forward, Ftype* out) {
  const char* fn = "blas_flatten";
  if (!(count_ok(fn, "spatial", spatial) & count_ok(fn, "layers", layers) & count_ok(fn, "batch", batch))) return;
  if (!(not_null(fn, "x", x) & not_null(fn, "out", out))) return;
  ORVA_DISPATCH(handle, flatten, x, spatial, layers, batch, forward, out);
}

void blas_softmax(void* handle, Ftype* input, int n, int batch, int batch_offset, int groups, int group_offset,
                  int stride, float temp, Ftype* output) {
  const char* fn = "blas_softmax";
  if (!(count_ok(fn, "n", n) & count_ok(fn, "batch", batch) & count_ok(fn, "groups", groups))) return;
  if (batch_offset < 0 || group_offset < 0 || stride < 0) {
    ORVA_THROW("%s: offsets must not be negative (batch_offset = %d, group_offset = %d, stride = %d)", fn,
               batch_offset, group_offset, stride);
  }
  if (!usable_temperature(fn, temp) || !(not_null(fn, "input", input) & not_null(fn, "output", output))) return;
  ORVA_DISPATCH(handle, softmax_strided, input, n, batch, batch_offset, groups, group_offset, stride, temp, output);
}

void blas_softmax(void* handle, Ftype* input, int batch, int batch_offset, int groups, int* gmap, float temp,
                  Ftype* output) {
  const char* fn = "blas_softmax";
  if (!(count_ok(fn, "batch", batch) & count_ok(fn, "groups", groups))) return;
  if (batch_offset < 0)
    ORVA_THROW("%s: batch_offset = %d must not be negative", fn, batch_offset);
  if (!usable_temperature(fn, temp) ||
      !(not_null(fn, "input", input) & not_null(fn, "gmap", gmap) & not_null(fn, "output", output)))
    return;
  ORVA_DISPATCH(handle, softmax_mapped, input, batch, batch_offset, groups, gmap, temp, output);
}

void blas_softmax2d(void* handle, Ftype* input, int h, int w, Ftype* output) {
  const char* fn = "blas_softmax2d";
  if (!(count_ok(fn, "h", h) & count_ok(fn, "w", w))) return;
  if (!(not_null(fn, "input", input) & not_null(fn, "output", output))) return;
  ORVA_DISPATCH(handle, softmax2d, input, h, w, output);
}

void blas_softmax_backward(void* handle, Ftype* output, Ftype* delta, int n, Ftype* odelta) {
  const char* fn = "blas_softmax_backward";
  if (!count_ok(fn, "n", n)) return;
  if (!(not_null(fn, "output", output) & not_null(fn, "delta", delta) & not_null(fn, "odelta", odelta))) return;
  ORVA_DISPATCH(handle, softmax_backward, output, delta, n, odelta);
}

void blas_softmax2d_backward(void* handle, Ftype* output, Ftype* delta, int h, int w, Ftype* odelta) {
  const char* fn = "blas_softmax2d_backward";
  if (!(count_ok(fn, "h", h) & count_ok(fn, "w", w))) return;
  if (!(not_null(fn, "output", output) & not_null(fn, "delta", delta) & not_null(fn, "odelta", odelta))) return;
  ORVA_DISPATCH(handle, softmax2d_backward, output, delta, h, w, odelta);
}

// Old entry points that never had a safe meaning: refusing beats computing garbage.
void softmax_device() { ORVA_THROW("softmax_device is not supported; use blas_softmax"); }

void softmax_device(Ftype*, int, Ftype*) { ORVA_THROW("softmax_device is not supported; use blas_softmax"); }
