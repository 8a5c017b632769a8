// Emulated CUDA: cuDNN's computations have no honest emulation (its algorithms, layouts and
// rounding are its own), so every cuDNN call the project makes beyond opening a context
// reports a fault and answers "not supported". Tests of operations built on cuDNN skip on
// the emulated backend and say so.
//
// The entry points are defined by name only, without cuDNN's header, so the list is just
// names: each leaves its arguments unread and returns a status in the return register,
// which on the Linux targets the project builds for (x86-64, AArch64) matches the caller's
// prototype. A new cuDNN call in the project is added to this list.
#include "emu/cuda_emu.h"

namespace {
constexpr int kNotSupported = 9;  // CUDNN_STATUS_NOT_SUPPORTED
int absent(const char* call) {
  orva_emu::fault("%s: cuDNN is not emulated", call);
  return kNotSupported;
}
}  // namespace

#define ORVA_CUDNN_ABSENT(name) \
  extern "C" int name(...) { return absent(#name); }

ORVA_CUDNN_ABSENT(cudnnBatchNormalizationBackward)
ORVA_CUDNN_ABSENT(cudnnBatchNormalizationForwardTraining)
ORVA_CUDNN_ABSENT(cudnnBatchNormalizationForwardInference)
ORVA_CUDNN_ABSENT(cudnnConvolutionBackwardData)
ORVA_CUDNN_ABSENT(cudnnConvolutionBackwardFilter)
ORVA_CUDNN_ABSENT(cudnnConvolutionBiasActivationForward)
ORVA_CUDNN_ABSENT(cudnnConvolutionForward)
ORVA_CUDNN_ABSENT(cudnnCreateActivationDescriptor)
ORVA_CUDNN_ABSENT(cudnnCreateConvolutionDescriptor)
ORVA_CUDNN_ABSENT(cudnnCreateFilterDescriptor)
ORVA_CUDNN_ABSENT(cudnnCreateTensorDescriptor)
ORVA_CUDNN_ABSENT(cudnnCreatePoolingDescriptor)
ORVA_CUDNN_ABSENT(cudnnDestroyActivationDescriptor)
ORVA_CUDNN_ABSENT(cudnnDestroyConvolutionDescriptor)
ORVA_CUDNN_ABSENT(cudnnDestroyFilterDescriptor)
ORVA_CUDNN_ABSENT(cudnnDestroyTensorDescriptor)
ORVA_CUDNN_ABSENT(cudnnDestroyPoolingDescriptor)
ORVA_CUDNN_ABSENT(cudnnFindConvolutionBackwardDataAlgorithm)
ORVA_CUDNN_ABSENT(cudnnFindConvolutionBackwardFilterAlgorithm)
ORVA_CUDNN_ABSENT(cudnnFindConvolutionForwardAlgorithm)
ORVA_CUDNN_ABSENT(cudnnGetConvolutionBackwardDataAlgorithm_v7)
ORVA_CUDNN_ABSENT(cudnnGetConvolutionBackwardDataWorkspaceSize)
ORVA_CUDNN_ABSENT(cudnnGetConvolutionBackwardFilterAlgorithm_v7)
ORVA_CUDNN_ABSENT(cudnnGetConvolutionBackwardFilterWorkspaceSize)
ORVA_CUDNN_ABSENT(cudnnGetConvolutionForwardAlgorithm_v7)
ORVA_CUDNN_ABSENT(cudnnGetConvolutionForwardWorkspaceSize)
ORVA_CUDNN_ABSENT(cudnnPoolingForward)
ORVA_CUDNN_ABSENT(cudnnPoolingBackward)
ORVA_CUDNN_ABSENT(cudnnSetActivationDescriptor)
ORVA_CUDNN_ABSENT(cudnnSetConvolution2dDescriptor)
ORVA_CUDNN_ABSENT(cudnnSetConvolutionGroupCount)
ORVA_CUDNN_ABSENT(cudnnSetConvolutionMathType)
ORVA_CUDNN_ABSENT(cudnnSetFilter4dDescriptor)
ORVA_CUDNN_ABSENT(cudnnSetPooling2dDescriptor)
ORVA_CUDNN_ABSENT(cudnnSetTensor4dDescriptor)
ORVA_CUDNN_ABSENT(cudnnSetTensor4dDescriptorEx)
ORVA_CUDNN_ABSENT(cudnnTransformTensor)
