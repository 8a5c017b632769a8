// Every launcher takes the network's context (CudaHandle*, as void*) first, enqueues its
// work on that context's backend and returns; tensors are arrays of Ftype in that backend's
// memory, laid out batch, channel, row, column (column fastest).
#pragma once
#include "orva/export.h"
#include <cstddef>
#include "orva/float16.h"

ORVA_API_BEGIN

// 8-bit quantisation (docs/QUANTIZATION.md). Byte buffers are backend memory. Values round
// to nearest (ties to even) and clamp to the byte range; NaN quantises to 0.
// Weights: [-thresh, thresh] onto -127..127.
void quant_int8(void* handle, Ftype* x, int n, float thresh, signed char* q);
// Inputs: [0, iq] onto 0..254 when iq > 0 (negatives give 0), [-|iq|, |iq|] onto -127..127
// when iq < 0 (stored as two's complement bytes), following the layers' threshold sign.
void quant_uint8(void* handle, Ftype* x, int n, float iq, unsigned char* q);
// Undoes a quantisation: x = q * scale (scale = thresh / 127 signed, iq / 254 unsigned).
void quant_float(void* handle, const signed char* q, int n, float scale, Ftype* x);
void quant_float(void* handle, const unsigned char* q, int n, float scale, Ftype* x);
// Threshold for a weight or input tensor: the largest magnitude, NaN ignored; *is_unsigned
// says whether no value is negative (so the unsigned mapping loses nothing). Waits for the
// backend; -1 for bad arguments.
float quant_thresh(void* handle, Ftype* x, int n, bool* is_unsigned);
// Mean absolute difference between x and its signed quantisation with thresh, restored, in
// the units of x. Waits for the backend; -1 for bad arguments.
float get_qerror(void* handle, Ftype* x, int n, float thresh);

ORVA_API_END
