// Layout and broadcast launchers: shape checks, then the backend's twin. A bad argument
// throws std::runtime_error naming the launcher and the value; nothing is launched.
#include "kernels/tensor.h"

#include <cmath>

#include "base/error.h"
#include "backend/backend.h"
#include "orva/util.h"
#include "kernels/tensor_kernel.h"

namespace {

// False for an empty call (batch 0) and, with an error line, for a bad shape.
bool shape_ok(const char* fn, int batch, int a, int b, int c) {
  if (batch < 0 || a < 1 || b < 1 || c < 1)
    ORVA_THROW("%s: shape batch %d, %d x %d x %d out of range", fn, batch, a, b, c);
  return batch > 0;
}

bool present(const char* fn, const void* a, const void* b, const void* c = "", const void* d = "") {
  if (!a || !b || !c || !d) ORVA_THROW("%s: a tensor is null", fn);
  return a && b && c && d;
}

}  // namespace

void tensor_upsample(void* handle, int batch, int w, int h, int c, int stride, Ftype* input, Ftype* output) {
  const char* fn = "tensor_upsample";
  if (!shape_ok(fn, batch, w, h, c) || !shape_ok(fn, 1, stride, 1, 1) || !present(fn, input, output)) return;
  ORVA_DISPATCH(handle, tensor::upsample, batch, w, h, c, stride, input, output);
}

void tensor_upsample_backward(void* handle, int batch, int w, int h, int c, int stride, Ftype* delta,
                              Ftype* prev_delta) {
  const char* fn = "tensor_upsample_backward";
  if (!shape_ok(fn, batch, w, h, c) || !shape_ok(fn, 1, stride, 1, 1) || !present(fn, delta, prev_delta)) return;
  ORVA_DISPATCH(handle, tensor::upsample_backward, batch, w, h, c, stride, delta, prev_delta);
}

namespace {
// The source step of one axis, in float as TensorFlow computes it.
float resize_step(int in, int out, int rule) {
  if (rule == kResizeAlignCorners) return out > 1 ? (float)(in - 1) / (float)(out - 1) : 0.f;
  return (float)in / (float)out;
}

bool resize_ok(const char* fn, int batch, int c, int in_w, int in_h, int out_w, int out_h, int rule) {
  if (!shape_ok(fn, batch, in_w, in_h, c) || !shape_ok(fn, 1, out_w, out_h, 1)) return false;
  if (rule < kResizeAsymmetric || rule > kResizeHalfPixel)
    ORVA_THROW("%s: coordinate rule %d is not 0, 1 or 2", fn, rule);
  return true;
}
}  // namespace

void tensor_resize(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, int rule, Ftype* input,
                   Ftype* output) {
  const char* fn = "tensor_resize";
  if (!resize_ok(fn, batch, c, in_w, in_h, out_w, out_h, rule) || !present(fn, input, output)) return;
  ORVA_DISPATCH(handle, tensor::resize, batch, c, in_w, in_h, out_w, out_h, resize_step(in_w, out_w, rule),
                resize_step(in_h, out_h, rule), rule == kResizeHalfPixel ? 1 : 0, input, output);
}

void tensor_resize_backward(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, int rule,
                            Ftype* delta, Ftype* prev_delta) {
  const char* fn = "tensor_resize_backward";
  if (!resize_ok(fn, batch, c, in_w, in_h, out_w, out_h, rule) || !present(fn, delta, prev_delta)) return;
  ORVA_DISPATCH(handle, tensor::resize_backward, batch, c, in_w, in_h, out_w, out_h, resize_step(in_w, out_w, rule),
                resize_step(in_h, out_h, rule), rule == kResizeHalfPixel ? 1 : 0, delta, prev_delta);
}

void tensor_add_scaled(void* handle, int n, float alpha, Ftype* x, float beta, Ftype* y, Ftype* out) {
  const char* fn = "tensor_add_scaled";
  if (n < 0 || !std::isfinite(alpha) || !std::isfinite(beta))
    ORVA_THROW("%s: n = %d, alpha = %g, beta = %g out of range", fn, n, alpha, beta);
  if (n == 0 || !present(fn, x, y, out)) return;
  // The factors are halves on both backends, rounded once here with the exact host table.
  ORVA_DISPATCH(handle, tensor::add_scaled, n, Ftype{float2half_cpu(alpha)}, x, Ftype{float2half_cpu(beta)}, y, out);
}

void tensor_scale(void* handle, int batch, int c, int size, int per_position, Ftype* input, Ftype* s,
                  Ftype* output) {
  const char* fn = "tensor_scale";
  if (!shape_ok(fn, batch, c, size, 1) || !present(fn, input, s, output)) return;
  ORVA_DISPATCH(handle, tensor::scale, batch, c, size, per_position ? 1 : 0, input, s, output);
}

void tensor_scale_backward(void* handle, int batch, int c, int size, int per_position, Ftype* input, Ftype* s,
                           Ftype* delta, Ftype* prev_delta, Ftype* scale_delta) {
  const char* fn = "tensor_scale_backward";
  if (!shape_ok(fn, batch, c, size, 1) || !present(fn, input, s, delta)) return;
  ORVA_DISPATCH(handle, tensor::scale_backward, batch, c, size, per_position ? 1 : 0, input, s, delta, prev_delta,
                scale_delta);
}

static bool dropout_ok(const char* fn, int n, float prob, float scale) {
  if (n < 0 || !(prob >= 0.f && prob < 1.f) || !std::isfinite(scale))
    ORVA_THROW("%s: n = %d, prob = %g, scale = %g out of range", fn, n, prob, scale);
  return n > 0;
}

void tensor_dropout(void* handle, int n, Ftype* input, float* rand, float prob, float scale, Ftype* output) {
  const char* fn = "tensor_dropout";
  if (!dropout_ok(fn, n, prob, scale) || !present(fn, input, rand, output)) return;
  ORVA_DISPATCH(handle, tensor::dropout, n, input, rand, prob, scale, output);
}

void tensor_dropout_backward(void* handle, int n, Ftype* delta, float* rand, float prob, float scale,
                             Ftype* prev_delta) {
  const char* fn = "tensor_dropout_backward";
  if (!dropout_ok(fn, n, prob, scale) || !present(fn, delta, rand, prev_delta)) return;
  ORVA_DISPATCH(handle, tensor::dropout_backward, n, delta, rand, prob, scale, prev_delta);
}

void tensor_prelu(void* handle, int batch, int c, int size, Ftype* input, Ftype* slope, Ftype* output) {
  const char* fn = "tensor_prelu";
  if (!shape_ok(fn, batch, c, size, 1) || !present(fn, input, slope, output)) return;
  ORVA_DISPATCH(handle, tensor::prelu, batch, c, size, input, slope, output);
}

void tensor_prelu_backward(void* handle, int batch, int c, int size, Ftype* input, Ftype* slope, Ftype* delta,
                           Ftype* prev_delta, Ftype* slope_delta) {
  const char* fn = "tensor_prelu_backward";
  if (!shape_ok(fn, batch, c, size, 1) || !present(fn, input, slope, delta)) return;
  ORVA_DISPATCH(handle, tensor::prelu_backward, batch, c, size, input, slope, delta, prev_delta, slope_delta);
}
