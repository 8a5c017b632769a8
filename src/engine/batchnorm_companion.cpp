// The batch-normalisation companion of the layers that normalise their output (declared in
// include/orva/layer.h), over the batchnorm launchers.
#include "orva/batchnorm.h"
#include "orva/blas.h"
#include "orva/cuda.h"
#include "orva/layer.h"

namespace ORVA {
namespace {
Ftype* zeroed_tensor(void* handle, size_t n) {
  Ftype* p = static_cast<Ftype*>(cuda_malloc(handle, n * sizeof(Ftype)));
  cuda_memset(handle, p, 0, n * sizeof(Ftype));
  return p;
}
}  // namespace

Batchnorm::Batchnorm(int n, int outputs, int mode, void* handle) : _gpu_handle(handle), _mode(mode), _n(n) {
  _scale = zeroed_tensor(handle, n);
  _mean_rolling = zeroed_tensor(handle, n);
  _var_rolling = zeroed_tensor(handle, n);
  if (mode) {
    blas_fill(handle, n, 1.f, _scale);
    _scale_update = zeroed_tensor(handle, n);
    _mean = zeroed_tensor(handle, n);
    _mean_delta = zeroed_tensor(handle, n);
    _var = zeroed_tensor(handle, n);
    _var_delta = zeroed_tensor(handle, n);
    _x = zeroed_tensor(handle, outputs);
    _xnorm = zeroed_tensor(handle, outputs);
    _param32 = static_cast<float*>(cuda_malloc(handle, 6 * (size_t)n * sizeof(float)));
  }
}

Batchnorm::~Batchnorm() {
  Ftype* tensors[] = {_scale, _scale_update, _mean, _mean_delta, _mean_rolling,
                      _var,   _var_delta,    _var_rolling, _x, _xnorm};
  for (Ftype* t : tensors)
    if (t) cuda_free(_gpu_handle, t);
  if (_param32) cuda_free(_gpu_handle, _param32);
}

int Batchnorm::loadWeight(FILE* fp) {
  cuda_fread(_gpu_handle, _scale, _n, fp);
  cuda_fread(_gpu_handle, _mean_rolling, _n, fp);
  cuda_fread(_gpu_handle, _var_rolling, _n, fp);
  return 0;
}

int Batchnorm::saveWeight(FILE* fp) {
  cuda_fwrite(_gpu_handle, _scale, _n, fp);
  cuda_fwrite(_gpu_handle, _mean_rolling, _n, fp);
  cuda_fwrite(_gpu_handle, _var_rolling, _n, fp);
  return 0;
}

void Batchnorm::forward(Layer* l, int batch, int n, int size) {
  if (l->mode) {
    blas_copy(_gpu_handle, batch * n * size, l->_output, _x);
    batchnorm_forward_training(_gpu_handle, _x, l->_output, _scale, l->_bias, batch, n, size, _mean_rolling,
                               _var_rolling, _mean, _var, _param32);
  } else {
    blas_normalize(_gpu_handle, l->_output, _mean_rolling, _var_rolling, batch, n, size);
  }
  // Training scales and shifts a second time on purpose: the stored scale and bias were
  // learned under that rule.
  blas_scale_add_bias(_gpu_handle, l->_output, _scale, l->_bias, batch, n, size);
}

void Batchnorm::backward(Layer* l, int batch) {
  const int size = l->_out_h * l->_out_w;
  batchnorm_backward(_gpu_handle, _x, l->_delta, _xnorm, _scale, _scale_update, l->_bias_update, batch, _n, size,
                     _mean, _var, _mean_delta, _var_delta, _param32);
  blas_copy(_gpu_handle, batch * l->_outputs, _xnorm, l->_delta);
}

void Batchnorm::update(int n, float rate, float momentum) {
  blas_axpy(_gpu_handle, n, rate, _scale_update, _scale);
  blas_scale(_gpu_handle, n, momentum, _scale_update);
}

void Batchnorm::scale(Layer* l, int n, int size) {
  batchnorm_fold(_gpu_handle, l->_weight, l->_bias, _scale, _mean_rolling, _var_rolling, n, size);
}

}  // namespace ORVA
