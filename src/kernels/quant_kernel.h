// Twins of the 8-bit quantisation launchers. The launcher turns a threshold into the factor
// `scale` (values to steps: 127 / thresh or 254 / iq) once on the host, so both backends
// multiply by the same float; `step` goes the other way (steps to values).
#pragma once
#include "orva/float16.h"

namespace cpu {
void quant_int8(void* handle, const Ftype* x, int n, float scale, signed char* q);
void quant_uint8(void* handle, const Ftype* x, int n, float scale, unsigned char* q);
void quant_float(void* handle, const unsigned char* q, bool is_unsigned, int n, float step, Ftype* x);
// Largest |x| (NaN ignored) and smallest x over the values.
void quant_thresh(void* handle, const Ftype* x, int n, float* max_abs, float* min_value);
// Sum over the values of |x - restored x| for the signed mapping.
double get_qerror(void* handle, const Ftype* x, int n, float scale, float step);
}  // namespace cpu

namespace gpu {
void quant_int8(void* handle, const Ftype* x, int n, float scale, signed char* q);
void quant_uint8(void* handle, const Ftype* x, int n, float scale, unsigned char* q);
void quant_float(void* handle, const unsigned char* q, bool is_unsigned, int n, float step, Ftype* x);
void quant_thresh(void* handle, const Ftype* x, int n, float* max_abs, float* min_value);
double get_qerror(void* handle, const Ftype* x, int n, float scale, float step);
}  // namespace gpu
