// The host's 8-bit convolution (conv_host.cpp's twin of conv_forward_int8): integer sums of
// the quantised input and weights, then qscale * sum + bias in float, one rounding to half.
// Two paths give the same bits: the dot-product instructions of AVX-512 VNNI where the
// processor has them, and plain integer loops everywhere else.
#pragma once
#include <cstdint>
#include <vector>

#include "orva/conv.h"

namespace cpu {

// The weights as the dot-product path reads them, kept by the plan. Packed when the weights
// are quantised, and again on the first pass of a plan made after them (a resized layer keeps
// its 8-bit weights but gets a new plan).
struct Int8Filters {
  std::vector<int32_t> words;    // [group][block of 8 filters][step][filter]: 4 channels' bytes
  std::vector<int32_t> offsets;  // per filter: 128 x its weight sum, for signed inputs
  std::vector<int32_t> steps;    // per step: where its words start in the bordered input
  const signed char* from = nullptr;
};

// Sizes the tables for the plan's shape (plan creation, so a pass never allocates).
void conv_int8_prepare(Int8Filters& f, const ConvShape& s);
void conv_int8_repack(Int8Filters& f, const ConvShape& s, const signed char* qweight);
void conv_int8_forward(void* handle, const ConvShape& s, Int8Filters& f, int batch, const char* qinput,
                       const signed char* qweight, float qscale, const Ftype* bias, Ftype* output);

// The portable path on its own, and whether this processor takes the dot-product path.
void conv_int8_forward_portable(void* handle, const ConvShape& s, int batch, const char* qinput,
                                const signed char* qweight, float qscale, const Ftype* bias, Ftype* output);
bool conv_int8_dot_products();

}  // namespace cpu
