// 8-bit quantisation of weights and layer inputs for the convolution layer's 8-bit path.
#include "base/error.h"
#include "backend/backend.h"
#include "orva/quant.h"
#include "orva/util.h"
#include "kernels/quant_kernel.h"

namespace {

// Steps on each side of zero: signed bytes keep -127..127 so the range is symmetric, unsigned
// bytes keep 0..254 so a step is half the signed one for the same threshold.
constexpr float kSignedSteps = 127.f;
constexpr float kUnsignedSteps = 254.f;

// For the reports, which answer -1 to a bad count.
bool check_count(const char* fn, int n) {
  if (n >= 0) return true;
  ORVA_ERROR("%s: n = %d is negative", fn, n);
  return false;
}

// For the conversions, which have no answer to give: true when there is work.
bool work(const char* fn, int n) {
  if (n < 0) ORVA_THROW("%s: n = %d is negative", fn, n);
  return n > 0;
}

}  // namespace

void quant_int8(void* handle, Ftype* x, int n, float thresh, signed char* q) {
  if (!work("quant_int8", n)) return;
  // A zero threshold is legal: it comes from an all-zero tensor, which stays all zero.
  if (!(thresh >= 0.f)) ORVA_THROW("quant_int8: thresh %g must be a non-negative number", thresh);
  ORVA_DISPATCH(handle, quant_int8, x, n, kSignedSteps / thresh, q);
}

void quant_uint8(void* handle, Ftype* x, int n, float iq, unsigned char* q) {
  if (!work("quant_uint8", n)) return;
  if (iq > 0.f) {
    ORVA_DISPATCH(handle, quant_uint8, x, n, kUnsignedSteps / iq, q);
  } else if (iq < 0.f) {
    ORVA_DISPATCH(handle, quant_int8, x, n, kSignedSteps / -iq, (signed char*)q);
  } else {
    // Zero means "no 8-bit input" to the layers, and NaN has no sign to choose a mapping by.
    ORVA_THROW("quant_uint8: iq %g must be positive (unsigned) or negative (signed)", iq);
  }
}

void quant_float(void* handle, const signed char* q, int n, float scale, Ftype* x) {
  if (!work("quant_float", n)) return;
  ORVA_DISPATCH(handle, quant_float, (const unsigned char*)q, false, n, scale, x);
}

void quant_float(void* handle, const unsigned char* q, int n, float scale, Ftype* x) {
  if (!work("quant_float", n)) return;
  ORVA_DISPATCH(handle, quant_float, q, true, n, scale, x);
}

float quant_thresh(void* handle, Ftype* x, int n, bool* is_unsigned) {
  if (!check_count("quant_thresh", n)) {
    if (is_unsigned) *is_unsigned = false;
    return -1.f;
  }
  float max_abs = 0.f, min_value = 0.f;
  if (n > 0) ORVA_DISPATCH(handle, quant_thresh, x, n, &max_abs, &min_value);
  if (is_unsigned) *is_unsigned = !(min_value < 0.f);
  return max_abs;
}

float get_qerror(void* handle, Ftype* x, int n, float thresh) {
  if (!check_count("get_qerror", n)) return -1.f;
  if (!(thresh >= 0.f)) {
    ORVA_ERROR("get_qerror: thresh %g must be a non-negative number", thresh);
    return -1.f;
  }
  if (n == 0) return 0.f;
  const double sum = ORVA_DISPATCH(handle, get_qerror, x, n, kSignedSteps / thresh, thresh / kSignedSteps);
  return (float)(sum / n);
}
