// Small helpers shared by the layer classes: tensor allocation, the batch of one pass, and
// the one way a layer reports a configuration it can't build.
#pragma once
#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "orva/activation.h"
#include "orva/cuda.h"
#include "orva/layer.h"
#include "orva/util.h"

namespace ORVA {

// Bounds that keep a description or a hostile model file from asking for unbounded memory.
constexpr long long kLayerMaxElements = 1LL << 28;
constexpr int kLayerMaxParam = 1024;

inline Ftype* layer_tensor(void* handle, size_t n, bool zeroed) {
  Ftype* p = static_cast<Ftype*>(cuda_malloc(handle, std::max<size_t>(n, 1) * sizeof(Ftype)));
  if (zeroed) cuda_memset(handle, p, 0, std::max<size_t>(n, 1) * sizeof(Ftype));
  return p;
}

template <typename T>
inline void layer_release(void* handle, T*& p) {
  if (p) cuda_free(handle, p);
  p = nullptr;
}

// Output and (in training) delta of batch * outputs halves, zeroed.
inline void layer_make_output(Layer* l) {
  layer_release(l->_gpu_handle, l->_output);
  layer_release(l->_gpu_handle, l->_delta);
  const size_t n = (size_t)l->_batch * l->_outputs;
  l->_output = layer_tensor(l->_gpu_handle, n, true);
  if (l->mode) l->_delta = layer_tensor(l->_gpu_handle, n, true);
}

// A head's loss gradient, computed on the host, goes to the layer's device delta at the end of
// its forward pass, so that backward finds it whoever runs it; returns the squared norm as
// the cost. stage holds batch * outputs halves.
inline float layer_publish_gradient(Layer* l, const float* delta_cpu, Ftype* stage) {
  const size_t n = (size_t)l->_batch * l->_outputs;
  const float norm = mag_array(const_cast<float*>(delta_cpu), (int)n);
  float2half_cpu(delta_cpu, stage, n);
  cuda_push(l->_gpu_handle, l->_delta, stage, n * sizeof(Ftype));
  cuda_sync(l->_gpu_handle);
  return norm * norm;
}

// Samples in this pass: the caller's count, never more than the layer was built for.
inline int layer_pass_batch(const NetworkParams& params, int batch) { return std::min(params.batch, batch); }

// True when every count is positive and batch x elements stays within the bound.
inline bool layer_size_ok(int batch, long long elements) {
  return batch > 0 && elements > 0 && elements * batch <= kLayerMaxElements;
}

// True for an activation id that names a function.
inline bool activation_known(int id) {
  Activation* a = ActivationType::create(id, nullptr);
  const bool known = a != nullptr;
  delete a;
  return known;
}

// Window checks shared by the pooling layers (maxpool_layer.cpp).
void check_pool_window(bool from_file, const char* layer, int in_w, int in_h, int in_c, int batch, int size,
                       int stride, int pad);

}  // namespace ORVA

// A configuration the layer can't build. From a description (from_file false) it is a fatal
// description fault; from a model file it is std::runtime_error, since the file came from a user.
#define LAYER_FAULT(from_file, ...)                                                 \
  do {                                                                              \
    char _why[320];                                                                 \
    snprintf(_why, sizeof(_why), __VA_ARGS__);                                      \
    if (from_file) throw std::runtime_error(std::string("Invalid model format: ") + _why); \
    ORVA_FATAL("%s", _why);                                                         \
  } while (0)
