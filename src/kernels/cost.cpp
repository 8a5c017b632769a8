// Loss launchers: argument checks, then the backend's twin. A bad argument throws
// std::runtime_error naming the launcher and the argument, and nothing is touched.
#include "kernels/cost.h"

#include <cmath>

#include "base/error.h"
#include "backend/backend.h"
#include "kernels/cost_kernel.h"
#include "orva/util.h"

namespace {

Ftype to_half(float v) { return Ftype{float2half_cpu(v)}; }

bool args_ok(const char* fn, int n, const void* input, const void* truth, const void* delta, const void* error) {
  if (n < 0) ORVA_THROW("%s: n = %d must not be negative", fn, n);
  if (n <= 0) return false;
  const void* ptrs[] = {input, truth, delta, error};
  const char* names[] = {"input", "truth", "delta", "error"};
  for (int i = 0; i < 4; ++i)
    if (!ptrs[i]) ORVA_THROW("%s: %s is null", fn, names[i]);
  return true;
}

}  // namespace

void cost_l2(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float thresh) {
  if (!args_ok("cost_l2", n, input, truth, delta, error)) return;
  ORVA_DISPATCH(handle, l2, n, input, truth, delta, error, to_half(thresh));
}

void cost_l1(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float thresh) {
  if (!args_ok("cost_l1", n, input, truth, delta, error)) return;
  ORVA_DISPATCH(handle, l1, n, input, truth, delta, error, to_half(thresh));
}

void cost_l1smooth(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float thresh) {
  if (!args_ok("cost_l1smooth", n, input, truth, delta, error)) return;
  ORVA_DISPATCH(handle, l1smooth, n, input, truth, delta, error, to_half(thresh));
}

void cost_xentropy(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float eps,
                   float gamma, float pscale, float nscale) {
  if (!args_ok("cost_xentropy", n, input, truth, delta, error)) return;
  // The clamp needs 0 < eps < 0.5 to leave a non-empty range.
  if (!(eps > 0.f && eps < 0.5f))
    ORVA_THROW("cost_xentropy: eps = %g must lie in (0, 0.5)", eps);
  if (!(gamma >= 0.f) || !std::isfinite(gamma))
    ORVA_THROW("cost_xentropy: gamma = %g must be finite and not negative", gamma);
  ORVA_DISPATCH(handle, xentropy, n, input, truth, delta, error, eps, gamma, pscale, nscale);
}
