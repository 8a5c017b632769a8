// Loss launchers of the cost layer. Each compares n predictions with float truth values and
// writes a per-element error and a per-element gradient (truth minus prediction, so adding
// it to the weights' gradient moves the prediction towards the truth).
#pragma once
#include "orva/float16.h"


// truth lives in tensor memory of the handle's backend; thresh: an element whose error does
// not exceed it gets no gradient.
void cost_l2(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float thresh);
void cost_l1(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float thresh);
void cost_l1smooth(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float thresh);
// Focal cross-entropy of probabilities p against targets y in [0, 1], p clamped to
// [eps, 1 - eps]:
//   error = -(pscale * y * (1-p)^gamma * ln p + nscale * (1-y) * p^gamma * ln(1-p))
//   delta = pscale * y * (1-p)^(gamma+1) - nscale * (1-y) * p^(gamma+1)
// The gradient is the one of a logistic output with the focusing factor held constant; at
// gamma = 0 it is exactly y - p.
void cost_xentropy(void* handle, int n, Ftype* input, float* truth, Ftype* delta, Ftype* error, float eps,
                   float gamma, float pscale, float nscale);

