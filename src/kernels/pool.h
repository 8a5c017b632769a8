// Pooling launchers. Tensors are batch x channels x rows x columns of Ftype in the backend's
// memory. The windowed output side is (in + 2 * pad) / stride: the window size does not
// enter it, so windows on the far border may reach past the input (those positions count as
// minus infinity for the maximum and as nothing for the mean).
#pragma once
#include "orva/float16.h"


// Output side of a windowed pool, the one formula every caller shares.
inline int pool_out_side(int in, int pad, int stride) { return (in + 2 * pad) / stride; }

// Output side of a centred window pool, where the windows start pad before the input and the
// window size enters the side: (in + 2 * pad - size) / stride + 1. With pad = (size - 1) / 2
// and stride 1 an odd window keeps the input's side (the spatial pyramid's pools).
inline int pool_out_side_centred(int in, int size, int pad, int stride) { return (in + 2 * pad - size) / stride + 1; }

// Window maximum; indexes[o] = flat input index of the first strictly greatest value in
// row-major window order, -1 when the window lies wholly outside the input. indexes may be
// null where no gradient will be taken: only the maxima are written then.
void pool_max_forward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                      Ftype* input, Ftype* output, int* indexes);
// prev_delta[i] += sum of delta over the outputs whose recorded index is i.
void pool_max_backward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                       Ftype* delta, int* indexes, Ftype* prev_delta);
// The same two with the centred output side.
void pool_max_forward_centred(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                              Ftype* input, Ftype* output, int* indexes);
void pool_max_backward_centred(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                               Ftype* delta, int* indexes, Ftype* prev_delta);
// Window mean: in-range values summed in half, divided by the full size * size.
void pool_avg_forward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                      Ftype* input, Ftype* output);
// prev_delta[i] += sum of delta / (size * size) over the windows covering i.
void pool_avg_backward(void* handle, int batch, int in_h, int in_w, int in_c, int size, int stride, int pad,
                       Ftype* delta, Ftype* prev_delta);
// Mean of each whole plane (of squares when square is 1); with tmin or tmax non-zero the
// plane is ranked ascending and only ranks tmin .. plane - tmax - 1 are averaged. order:
// batch * in_c * in_h * in_w ints of scratch holding the ranking, needed only when trimming.
void pool_global_forward(void* handle, int batch, int in_h, int in_w, int in_c, int square, int tmin, int tmax,
                         Ftype* input, int* order, Ftype* output);
// prev_delta += d(mean)/dx * delta for the kept positions; input and order from the forward.
void pool_global_backward(void* handle, int batch, int in_h, int in_w, int in_c, int square, int tmin, int tmax,
                          Ftype* input, int* order, Ftype* delta, Ftype* prev_delta);

