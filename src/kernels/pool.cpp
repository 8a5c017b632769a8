// Pooling launchers: shape checks, then the backend's twin. A bad shape throws
// std::runtime_error naming the launcher, the argument and its value; nothing is launched.
#include "kernels/pool.h"

#include "base/error.h"
#include "backend/backend.h"
#include "orva/util.h"
#include "kernels/pool_kernel.h"

namespace {

bool window_ok(const char* fn, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad) {
  if (batch < 0 || in_h < 1 || in_w < 1 || in_c < 1)
    ORVA_THROW("%s: shape batch %d, %d x %d x %d is empty", fn, batch, in_w, in_h, in_c);
  if (size < 1 || stride < 1 || pad < 0)
    ORVA_THROW("%s: size = %d, stride = %d, pad = %d out of range", fn, size, stride, pad);
  if (pool_out_side(in_w, pad, stride) < 1 || pool_out_side(in_h, pad, stride) < 1)
    ORVA_THROW("%s: stride = %d leaves no output of %d x %d with pad %d", fn, stride, in_w, in_h, pad);
  return batch > 0;
}

// The centred rule also needs the window inside the padded input.
bool centred_ok(const char* fn, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad) {
  if (!window_ok(fn, batch, in_h, in_w, in_c, size, stride, pad)) return false;
  if (size > in_w + 2 * pad || size > in_h + 2 * pad || size <= pad)
    ORVA_THROW("%s: size = %d does not fit %d x %d with pad %d", fn, size, in_w, in_h, pad);
  return true;
}

bool global_ok(const char* fn, int batch, int in_h, int in_w, int in_c, int square, int tmin, int tmax,
               const int* order) {
  if (batch < 0 || in_h < 1 || in_w < 1 || in_c < 1)
    ORVA_THROW("%s: shape batch %d, %d x %d x %d is empty", fn, batch, in_w, in_h, in_c);
  const long long plane = (long long)in_w * in_h;
  if (tmin < 0 || tmax < 0 || tmin + (long long)tmax >= plane || (square != 0 && square != 1))
    ORVA_THROW("%s: tmin = %d, tmax = %d, square = %d do not fit a plane of %lld", fn, tmin, tmax, square, plane);
  if ((tmin || tmax) && !order)
    ORVA_THROW("%s: trimming needs the order scratch", fn);
  return batch > 0;
}

bool present(const char* fn, const void* a, const void* b, const void* c = "") {
  if (!a || !b || !c) ORVA_THROW("%s: a tensor is null", fn);
  return a && b && c;
}

}  // namespace

void pool_max_forward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                      Ftype* input, Ftype* output, int* indexes) {
  const char* fn = "pool_max_forward";
  if (!window_ok(fn, batch, in_h, in_w, in_c, size, stride, pad) || !present(fn, input, output)) return;
  ORVA_DISPATCH(handle, pool::max_forward, batch, in_h, in_w, in_c, pool_out_side(in_h, pad, stride),
                pool_out_side(in_w, pad, stride), size, stride, pad, input, output, indexes);
}

void pool_max_backward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                       Ftype* delta, int* indexes, Ftype* prev_delta) {
  const char* fn = "pool_max_backward";
  if (!window_ok(fn, batch, in_h, in_w, in_c, size, stride, pad) || !present(fn, delta, indexes, prev_delta)) return;
  ORVA_DISPATCH(handle, pool::max_backward, batch, in_h, in_w, in_c, pool_out_side(in_h, pad, stride),
                pool_out_side(in_w, pad, stride), size, stride, pad, delta, indexes, prev_delta);
}

void pool_max_forward_centred(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                              Ftype* input, Ftype* output, int* indexes) {
  const char* fn = "pool_max_forward_centred";
  if (!centred_ok(fn, batch, in_h, in_w, in_c, size, stride, pad) || !present(fn, input, output)) return;
  ORVA_DISPATCH(handle, pool::max_forward, batch, in_h, in_w, in_c, pool_out_side_centred(in_h, size, pad, stride),
                pool_out_side_centred(in_w, size, pad, stride), size, stride, pad, input, output, indexes);
}

void pool_max_backward_centred(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                               Ftype* delta, int* indexes, Ftype* prev_delta) {
  const char* fn = "pool_max_backward_centred";
  if (!centred_ok(fn, batch, in_h, in_w, in_c, size, stride, pad) || !present(fn, delta, indexes, prev_delta))
    return;
  ORVA_DISPATCH(handle, pool::max_backward, batch, in_h, in_w, in_c, pool_out_side_centred(in_h, size, pad, stride),
                pool_out_side_centred(in_w, size, pad, stride), size, stride, pad, delta, indexes, prev_delta);
}

void pool_avg_forward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                      Ftype* input, Ftype* output) {
  const char* fn = "pool_avg_forward";
  if (!window_ok(fn, batch, in_h, in_w, in_c, size, stride, pad) || !present(fn, input, output)) return;
  ORVA_DISPATCH(handle, pool::avg_forward, batch, in_h, in_w, in_c, pool_out_side(in_h, pad, stride),
                pool_out_side(in_w, pad, stride), size, stride, pad, input, output);
}

void pool_avg_backward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                       Ftype* delta, Ftype* prev_delta) {
  const char* fn = "pool_avg_backward";
  if (!window_ok(fn, batch, in_h, in_w, in_c, size, stride, pad) || !present(fn, delta, prev_delta)) return;
  ORVA_DISPATCH(handle, pool::avg_backward, batch, in_h, in_w, in_c, pool_out_side(in_h, pad, stride),
                pool_out_side(in_w, pad, stride), size, stride, pad, delta, prev_delta);
}

void pool_global_forward(void* handle, int batch, int in_h, int in_w, int in_c, int square, int tmin, int tmax,
                         Ftype* input, int* order, Ftype* output) {
  const char* fn = "pool_global_forward";
  if (!global_ok(fn, batch, in_h, in_w, in_c, square, tmin, tmax, order) || !present(fn, input, output)) return;
  ORVA_DISPATCH(handle, pool::global_forward, batch * in_c, in_h * in_w, square, tmin, tmax, input, order, output);
}

void pool_global_backward(void* handle, int batch, int in_h, int in_w, int in_c, int square, int tmin, int tmax,
                          Ftype* input, int* order, Ftype* delta, Ftype* prev_delta) {
  const char* fn = "pool_global_backward";
  if (!global_ok(fn, batch, in_h, in_w, in_c, square, tmin, tmax, order) || !present(fn, input, delta, prev_delta))
    return;
  ORVA_DISPATCH(handle, pool::global_backward, batch * in_c, in_h * in_w, square, tmin, tmax, input, order, delta,
                prev_delta);
}
