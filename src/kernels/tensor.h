// Layout and broadcast launchers used by the resampling, scaling, dropout and parametric
// activation layers. Tensors are batch x channels x rows x columns of Ftype in the backend's
// memory. Every *_backward adds its gradient into prev_delta (a null prev_delta or
// scale_delta skips that part).
#pragma once
#include "orva/float16.h"


// Nearest-neighbour enlargement: out[b,c,y,x] = in[b,c,y/stride,x/stride], out side = in * stride.
void tensor_upsample(void* handle, int batch, int w, int h, int c, int stride, Ftype* input, Ftype* output);
// prev_delta[b,c,y,x] += sum of delta over the stride x stride block it was copied to.
void tensor_upsample_backward(void* handle, int batch, int w, int h, int c, int stride, Ftype* delta,
                              Ftype* prev_delta);

// Bilinear resize of each plane from in_w x in_h to out_w x out_h. The source coordinate of
// output index d follows one of TensorFlow's rules: kResizeAsymmetric d * in / out,
// kResizeAlignCorners d * (in - 1) / (out - 1), kResizeHalfPixel (d + 0.5) * in / out - 0.5.
// The four taps are clamped into the plane; out = top + (bottom - top) * ly with top and
// bottom interpolated along the row, all in float, rounded to half once.
enum { kResizeAsymmetric = 0, kResizeAlignCorners = 1, kResizeHalfPixel = 2 };
void tensor_resize(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, int rule, Ftype* input,
                   Ftype* output);
// prev_delta[b,c,y,x] += sum over the outputs that read (y, x) of delta times the tap's weight.
void tensor_resize_backward(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, int rule,
                            Ftype* delta, Ftype* prev_delta);

// out = alpha * x + beta * y, each product and the sum rounded to half (the residual sum of
// two tensors of one shape; out may be x or y).
void tensor_add_scaled(void* handle, int n, float alpha, Ftype* x, float beta, Ftype* y, Ftype* out);

// Broadcast product out = in * s: per_position 0 takes s[b * c + ch] (one factor per channel
// and item), per_position 1 takes s[b * size + p] (one map value per position and item,
// shared by all channels). The product is one half multiply.
void tensor_scale(void* handle, int batch, int c, int size, int per_position, Ftype* input, Ftype* s,
                  Ftype* output);
// prev_delta += delta * s; scale_delta[...] += sum over the broadcast axis of delta * input.
void tensor_scale_backward(void* handle, int batch, int c, int size, int per_position, Ftype* input, Ftype* s,
                           Ftype* delta, Ftype* prev_delta, Ftype* scale_delta);

// Dropout with rand[i] uniform in [0, 1): out = rand < prob ? 0 : in * scale.
void tensor_dropout(void* handle, int n, Ftype* input, float* rand, float prob, float scale, Ftype* output);
// prev_delta += rand < prob ? 0 : delta * scale.
void tensor_dropout_backward(void* handle, int n, Ftype* delta, float* rand, float prob, float scale,
                             Ftype* prev_delta);

// Per-channel parametric rectifier: out = x > 0 ? x : slope[ch] * x.
void tensor_prelu(void* handle, int batch, int c, int size, Ftype* input, Ftype* slope, Ftype* output);
// prev_delta += delta * (x > 0 ? 1 : slope); slope_delta[ch] += sum of delta * x where x <= 0.
void tensor_prelu_backward(void* handle, int batch, int c, int size, Ftype* input, Ftype* slope, Ftype* delta,
                           Ftype* prev_delta, Ftype* slope_delta);

