// cuDNN spatial batch normalisation for training. The library wants float per-channel
// tensors beside half data, so the half tensors are widened into the caller's param32 block
// (scale, bias, running mean, running variance, saved mean, saved inverse deviation) and
// the results narrowed back.
#include "backend/backend.h"
#include "kernels/batchnorm_kernel.h"
#include "backend/cuda_check.h"

namespace gpu {
namespace {

// cuDNN refuses an epsilon below CUDNN_BN_MIN_EPSILON, compared as a double: the float 1e-5
// widens to just below 1e-5, the minimum of the releases that had one.
constexpr double kCudnnEpsilon =
    (double)kBatchnormEpsilon < CUDNN_BN_MIN_EPSILON ? CUDNN_BN_MIN_EPSILON : (double)kBatchnormEpsilon;

struct Descriptors {
  Descriptors(int batch, int n, int size) {
    CHECK_CUDA(cudnnCreateTensorDescriptor(&data));
    CHECK_CUDA(cudnnSetTensor4dDescriptor(data, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, batch, n, size, 1));
    CHECK_CUDA(cudnnCreateTensorDescriptor(&channel));
    CHECK_CUDA(cudnnSetTensor4dDescriptor(channel, CUDNN_TENSOR_NCHW, CUDNN_DATA_FLOAT, 1, n, 1, 1));
  }
  ~Descriptors() {
    REPORT_CUDA(cudnnDestroyTensorDescriptor(data));
    REPORT_CUDA(cudnnDestroyTensorDescriptor(channel));
  }
  cudnnTensorDescriptor_t data = nullptr, channel = nullptr;
};

}  // namespace

void batchnorm_forward_training(void* handle, Ftype* x, Ftype* y, Ftype* scale, Ftype* bias, int batch, int n,
                                int size, Ftype* mean_rolling, Ftype* var_rolling, Ftype* mean, Ftype* var,
                                float* param32) {
  float* scale32 = param32;
  float* bias32 = param32 + n;
  float* mean_rolling32 = param32 + 2 * n;
  float* var_rolling32 = param32 + 3 * n;
  float* mean32 = param32 + 4 * n;
  float* invstd32 = param32 + 5 * n;
  half2float_gpu(handle, scale32, scale, n);
  half2float_gpu(handle, bias32, bias, n);
  half2float_gpu(handle, mean_rolling32, mean_rolling, n);
  half2float_gpu(handle, var_rolling32, var_rolling, n);
  Descriptors d(batch, n, size);
  const float one = 1.f, zero = 0.f;
  CHECK_CUDA(cudnnBatchNormalizationForwardTraining(cudnn_of(handle), CUDNN_BATCHNORM_SPATIAL, &one, &zero, d.data, x,
                                                    d.data, y, d.channel, scale32, bias32, kBatchnormAverageFactor,
                                                    mean_rolling32, var_rolling32, kCudnnEpsilon, mean32, invstd32));
  float2half_gpu(handle, mean_rolling32, mean_rolling, n);
  float2half_gpu(handle, var_rolling32, var_rolling, n);
  float2half_gpu(handle, mean32, mean, n);
  float2half_gpu(handle, invstd32, var, n);
}

void batchnorm_backward(void* handle, Ftype* x, Ftype* dy, Ftype* dx, Ftype* scale, Ftype* scale_update,
                        Ftype* bias_update, int batch, int n, int size, Ftype* mean, Ftype* var, Ftype* mean_delta,
                        Ftype* var_delta, float* param32) {
  // The saved statistics are still in float from the forward pass.
  float* scale32 = param32;
  float* scale_update32 = param32 + n;
  float* bias_update32 = param32 + 2 * n;
  float* mean32 = param32 + 4 * n;
  float* invstd32 = param32 + 5 * n;
  half2float_gpu(handle, scale32, scale, n);
  half2float_gpu(handle, scale_update32, scale_update, n);
  half2float_gpu(handle, bias_update32, bias_update, n);
  Descriptors d(batch, n, size);
  const float one = 1.f, zero = 0.f;
  CHECK_CUDA(cudnnBatchNormalizationBackward(cudnn_of(handle), CUDNN_BATCHNORM_SPATIAL, &one, &zero, &one, &one, d.data,
                                             x, d.data, dy, d.data, dx, d.channel, scale32, scale_update32,
                                             bias_update32, kCudnnEpsilon, mean32, invstd32));
  float2half_gpu(handle, scale_update32, scale_update, n);
  float2half_gpu(handle, bias_update32, bias_update, n);
}

}  // namespace gpu
