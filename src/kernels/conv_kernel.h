// Backend twins of the convolution launchers (include/orva/conv.h): cuDNN on CUDA, im2col
// and matrix products on the host.
#pragma once
#include <cstddef>
#include <functional>

#include "orva/conv.h"

namespace cpu {
ConvPlan* conv_plan_create(void* handle, const ConvShape& shape);
void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace);
void conv_forward_bias_activate(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* bias,
                                int type, Ftype* output, void* workspace);
void conv_backward_filter(void* handle, ConvPlan* plan, Ftype* input, Ftype* delta, Ftype* weight_update,
                          void* workspace);
void conv_backward_data(void* handle, ConvPlan* plan, Ftype* weight, Ftype* delta, Ftype* input_delta,
                        void* workspace);
void conv_repack_int8(void* handle, ConvPlan* plan, signed char* qweight);
void conv_forward_int8(void* handle, ConvPlan* plan, int batch, char* qinput, signed char* qweight, float qscale,
                       Ftype* bias, Ftype* output, void* workspace);
void conv_release_descriptors(void* handle, ORVA::Layer* l);
// Dilated im2col / col2im of one image: rows (c * size + ky) * size + kx, columns out_h * out_w.
void conv_im2col(const Ftype* im, int channels, int height, int width, int size, int stride, int pad,
                 int dilation, int out_h, int out_w, Ftype* col);
void conv_col2im_add(const Ftype* col, int channels, int height, int width, int size, int stride, int pad,
                     int dilation, int out_h, int out_w, Ftype* im);
// Runs body with OpenBLAS single-threaded (blas_host.cpp), for twins that thread their own
// float products in TBB tiles.
void blas_single_threaded(const std::function<void()>& body);
}  // namespace cpu

namespace gpu {
ConvPlan* conv_plan_create(void* handle, const ConvShape& shape);
void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace);
void conv_forward_bias_activate(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* bias,
                                int type, Ftype* output, void* workspace);
void conv_backward_filter(void* handle, ConvPlan* plan, Ftype* input, Ftype* delta, Ftype* weight_update,
                          void* workspace);
void conv_backward_data(void* handle, ConvPlan* plan, Ftype* weight, Ftype* delta, Ftype* input_delta,
                        void* workspace);
void conv_repack_int8(void* handle, ConvPlan* plan, signed char* qweight);
void conv_forward_int8(void* handle, ConvPlan* plan, int batch, char* qinput, signed char* qweight, float qscale,
                       Ftype* bias, Ftype* output, void* workspace);
void conv_release_descriptors(void* handle, ORVA::Layer* l);
}  // namespace gpu
