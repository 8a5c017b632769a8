// Twins of the buffer conversions.
#pragma once
#include <cstddef>
#include "orva/float16.h"

namespace cpu {
void float2half(void* handle, const float* src, _half* dst, size_t n);
void half2float(void* handle, float* dst, const _half* src, size_t n);
}  // namespace cpu
namespace gpu {
void float2half(void* handle, const float* src, _half* dst, size_t n);
void half2float(void* handle, float* dst, const _half* src, size_t n);
}  // namespace gpu
