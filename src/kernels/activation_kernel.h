// Twins of the activation launchers, and the host per-value functions behind the classes'
// activate_kernel / gradient_kernel.
#pragma once
#include "orva/float16.h"

// Ids that need special handling outside the per-value functions.
constexpr int kActivationLinear = 3;
// Size of the per-value tables; ids 4, 6, 10 and 12 are empty slots.
constexpr int kActivationSlots = 19;

namespace cpu {
// f(x) and g(y) of one value, computed as the host twins compute them. Only for ids that
// have a function; the caller checks.
_half activate_value(int type, _half x);
_half gradient_value(int type, _half y);

void activate(void* handle, int type, Ftype* x, int n);
void add_bias_activate(void* handle, int type, Ftype* output, Ftype* bias, int batch, int n, int size);
void gradient(void* handle, int type, Ftype* x, int n, Ftype* delta);
// Rounds n float products into dst, adds b and applies activation `type`, each step rounded
// as add_bias_activate rounds it after a separate narrowing (host convolutions fuse it into
// their last pass); null for an id without a function.
using NarrowBiasActivateFn = void (*)(const float* src, Ftype* dst, int n, _half b);
NarrowBiasActivateFn narrow_bias_activate_fn(int type);
}  // namespace cpu

namespace gpu {
void activate(void* handle, int type, Ftype* x, int n);
void add_bias_activate(void* handle, int type, Ftype* output, Ftype* bias, int batch, int n, int size);
void gradient(void* handle, int type, Ftype* x, int n, Ftype* delta);
}  // namespace gpu
