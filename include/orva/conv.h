// Convolution: a per-layer plan (descriptors, chosen algorithms, workspace need) and the
// forward, backward and 8-bit passes that run through it. Every launcher takes the network's
// context first and enqueues on its backend.
#pragma once
#include "orva/export.h"
#include <cstddef>

#include "orva/float16.h"

ORVA_API_BEGIN

namespace ORVA {
class Layer;
}

struct ConvShape {
  int batch;  // largest pass the plan serves; passes of 1 .. batch samples need no new setup
  int in_c, in_h, in_w;
  int out_c, out_h, out_w;
  int size, stride, pad, dilation, groups;
  bool train;  // also prepares the backward passes
  int int8;    // 0: no 8-bit path; > 0: unsigned inputs; < 0: signed inputs
  bool fast;   // heuristic rather than measured algorithm choice
};

// Owned by the layer through the public launchers; each backend derives its own.
class ConvPlan {
 public:
  explicit ConvPlan(const ConvShape& s) : shape(s) {}
  virtual ~ConvPlan() = default;
  ConvShape shape;
  size_t workspace_bytes = 0;
};

ConvPlan* conv_plan_create(void* handle, const ConvShape& shape);
void conv_plan_destroy(void* handle, ConvPlan* plan);
// output = conv(input, weight) for `batch` samples, no bias.
void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace);
// output = activation(conv(input, weight) + bias) with the bias per filter, rounded as
// conv_forward followed by activation_bias_forward; the host does it in the product's last
// pass.
void conv_forward_bias_activate(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* bias,
                                int type, Ftype* output, void* workspace);
// weight_update += gradient of the weights (full batch).
void conv_backward_filter(void* handle, ConvPlan* plan, Ftype* input, Ftype* delta, Ftype* weight_update,
                          void* workspace);
// input_delta += gradient of the input (full batch).
void conv_backward_data(void* handle, ConvPlan* plan, Ftype* weight, Ftype* delta, Ftype* input_delta,
                        void* workspace);
// Quantises the weights into qweight (shape.out_c x in_c/groups x size x size bytes) in the layout the
// 8-bit pass reads; returns the weight threshold and sets *is_unsigned.
float conv_quantize_weights(void* handle, ConvPlan* plan, Ftype* weight, int n, signed char* qweight,
                            bool* is_unsigned);
// The deepest filter (in_c / groups x size x size weights) the convolution layer runs in 8 bits:
// up to there a sum of products of unsigned input bytes (0..254) and weights (-127..127) stays
// inside 32 bits, (2^31 - 1) / (254 x 127) = 66572.
constexpr int kConvInt8MaxDepth = 66572;
// 8-bit pass: quantises the input with iqthresh (> 0 unsigned, < 0 signed) into qinput (two halves of
// batch * inputs bytes each), then output = qscale * conv(qinput, qweight) + bias.
void conv_forward_int8(void* handle, ConvPlan* plan, int batch, Ftype* input, float iqthresh, char* qinput,
                       signed char* qweight, float qscale, Ftype* bias, Ftype* output, void* workspace);

ORVA_API_END
