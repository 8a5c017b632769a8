#include "orva/conv.h"

#include "base/error.h"
#include "backend/backend.h"
#include "kernels/conv_kernel.h"
#include "orva/quant.h"
#include "orva/util.h"

ConvPlan* conv_plan_create(void* handle, const ConvShape& shape) { return ORVA_DISPATCH(handle, conv_plan_create, shape); }

void conv_plan_destroy(void* handle, ConvPlan* plan) { delete plan; }

void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace) {
  if (batch < 1) return;
  if (batch > plan->shape.batch) batch = plan->shape.batch;
  ORVA_DISPATCH(handle, conv_forward, plan, batch, input, weight, output, workspace);
}

void conv_forward_bias_activate(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* bias,
                                int type, Ftype* output, void* workspace) {
  if (batch < 1) return;
  if (!bias)
    ORVA_THROW("conv_forward_bias_activate: no bias for %d filters", plan->shape.out_c);
  if (batch > plan->shape.batch) batch = plan->shape.batch;
  ORVA_DISPATCH(handle, conv_forward_bias_activate, plan, batch, input, weight, bias, type, output, workspace);
}
void conv_backward_filter(void* handle, ConvPlan* plan, Ftype* input, Ftype* delta, Ftype* weight_update,
                          void* workspace) {
  ORVA_DISPATCH(handle, conv_backward_filter, plan, input, delta, weight_update, workspace);
}

void conv_backward_data(void* handle, ConvPlan* plan, Ftype* weight, Ftype* delta, Ftype* input_delta,
                        void* workspace) {
  if (!input_delta) return;
  ORVA_DISPATCH(handle, conv_backward_data, plan, weight, delta, input_delta, workspace);
}

float conv_quantize_weights(void* handle, ConvPlan* plan, Ftype* weight, int n, signed char* qweight,
                            bool* is_unsigned) {
  const float thresh = quant_thresh(handle, weight, n, is_unsigned);
  quant_int8(handle, weight, n, thresh, qweight);
  ORVA_DISPATCH(handle, conv_repack_int8, plan, qweight);
  return thresh;
}

void conv_forward_int8(void* handle, ConvPlan* plan, int batch, Ftype* input, float iqthresh, char* qinput,
                       signed char* qweight, float qscale, Ftype* bias, Ftype* output, void* workspace) {
  const ConvShape& s = plan->shape;
  if (batch < 1) return;
  if (batch > s.batch) batch = s.batch;
  const int inputs = s.in_c * s.in_h * s.in_w;
  // The plain 8-bit copy goes to the second half so the packed layout can be built in the first.
  unsigned char* plain = reinterpret_cast<unsigned char*>(qinput) + (size_t)inputs * s.batch;
  quant_uint8(handle, input, batch * inputs, iqthresh, plain);
  ORVA_DISPATCH(handle, conv_forward_int8, plan, batch, qinput, qweight, qscale, bias, output, workspace);
}

void conv_release_descriptors(void* handle, ORVA::Layer* l) { ORVA_DISPATCH(handle, conv_release_descriptors, l); }
