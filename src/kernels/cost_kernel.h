// Backend twins of the loss launchers (include/orva/cost.h).
#pragma once
#include "orva/float16.h"

namespace cpu {
void l2(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh);
void l1(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh);
void l1smooth(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh);
void xentropy(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, float eps,
              float gamma, float pscale, float nscale);
}  // namespace cpu

namespace gpu {
void l2(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh);
void l1(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh);
void l1smooth(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, Ftype thresh);
void xentropy(void* handle, int n, const Ftype* input, const float* truth, Ftype* delta, Ftype* error, float eps,
              float gamma, float pscale, float nscale);
}  // namespace gpu
