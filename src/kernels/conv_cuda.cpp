// cuDNN convolution: one tensor descriptor pair and one forward algorithm per batch size, so a
// pass with fewer samples than the maximum needs no setup; the 8-bit path packs four channels.
#include <cstdlib>
#include <vector>

#include "backend/backend.h"
#include "kernels/conv_kernel.h"
#include "backend/cuda_check.h"
#include "orva/activation.h"
#include "orva/layer.h"

namespace gpu {
namespace {

class CudnnConvPlan : public ConvPlan {
 public:
  explicit CudnnConvPlan(const ConvShape& s) : ConvPlan(s), src(s.batch + 1), dst(s.batch + 1), fw(s.batch + 1) {}
  ~CudnnConvPlan() override {
    for (int b = 1; b <= shape.batch; ++b) {
      destroy(src[b]);
      destroy(dst[b]);
      if (!qplain.empty()) {
        destroy(qplain[b]);
        destroy(qi8x4[b]);
        destroy(qu8x4[b]);
      }
    }
    destroy(dsrc);
    destroy(ddst);
    destroy(bias);
    if (weight) cudnnDestroyFilterDescriptor(weight);
    if (qweight) cudnnDestroyFilterDescriptor(qweight);
    if (conv) cudnnDestroyConvolutionDescriptor(conv);
    if (qconv) cudnnDestroyConvolutionDescriptor(qconv);
    if (qact) cudnnDestroyActivationDescriptor(qact);
  }
  static void destroy(cudnnTensorDescriptor_t d) {
    if (d) cudnnDestroyTensorDescriptor(d);
  }

  std::vector<cudnnTensorDescriptor_t> src, dst;
  std::vector<cudnnConvolutionFwdAlgo_t> fw;
  cudnnTensorDescriptor_t dsrc = nullptr, ddst = nullptr, bias = nullptr;
  cudnnFilterDescriptor_t weight = nullptr;
  cudnnConvolutionDescriptor_t conv = nullptr;
  cudnnConvolutionBwdDataAlgo_t bd = CUDNN_CONVOLUTION_BWD_DATA_ALGO_0;
  cudnnConvolutionBwdFilterAlgo_t bf = CUDNN_CONVOLUTION_BWD_FILTER_ALGO_0;
  // 8-bit path
  std::vector<cudnnTensorDescriptor_t> qplain, qi8x4, qu8x4;
  cudnnFilterDescriptor_t qweight = nullptr;
  cudnnConvolutionDescriptor_t qconv = nullptr;
  cudnnActivationDescriptor_t qact = nullptr;
  cudnnConvolutionFwdAlgo_t qfw = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  const std::vector<cudnnTensorDescriptor_t>& qinput() const { return shape.int8 > 0 ? qu8x4 : qi8x4; }
};

cudnnTensorDescriptor_t tensor4d(cudnnTensorFormat_t format, cudnnDataType_t type, int n, int c, int h, int w) {
  cudnnTensorDescriptor_t d;
  CHECK_CUDA(cudnnCreateTensorDescriptor(&d));
  CHECK_CUDA(cudnnSetTensor4dDescriptor(d, format, type, n, c, h, w));
  return d;
}

cudnnFilterDescriptor_t filter4d(cudnnTensorFormat_t format, cudnnDataType_t type, const ConvShape& s) {
  cudnnFilterDescriptor_t d;
  CHECK_CUDA(cudnnCreateFilterDescriptor(&d));
  CHECK_CUDA(cudnnSetFilter4dDescriptor(d, type, format, s.out_c, s.in_c / s.groups, s.size, s.size));
  return d;
}

cudnnConvolutionDescriptor_t convolution(const ConvShape& s, cudnnDataType_t compute) {
  cudnnConvolutionDescriptor_t d;
  CHECK_CUDA(cudnnCreateConvolutionDescriptor(&d));
  CHECK_CUDA(cudnnSetConvolution2dDescriptor(d, s.pad, s.pad, s.stride, s.stride, s.dilation, s.dilation,
                                             CUDNN_CROSS_CORRELATION, compute));
  CHECK_CUDA(cudnnSetConvolutionGroupCount(d, s.groups));
  return d;
}

void fail_status(const char* call, cudnnStatus_t status) {
  if (status == CUDNN_STATUS_SUCCESS) return;
  ORVA_ERROR("%s = %d", call, (int)status);
  exit(-1);
}

cudnnConvolutionFwdAlgo_t choose_forward(cudnnHandle_t h, CudnnConvPlan* p, int b, void* handle) {
  const int kWanted = 8;
  int found = 0;
  if (p->shape.fast) {
    cudnnConvolutionFwdAlgoPerf_t perf[kWanted];
    if (cudnnGetConvolutionForwardAlgorithm_v7(h, p->src[b], p->weight, p->conv, p->dst[b], kWanted, &found, perf) ==
            CUDNN_STATUS_SUCCESS && found > 0)
      return perf[0].algo;
    return CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM;
  }
  cudnnConvolutionFwdAlgoPerf_t perf[kWanted];
  if (cudnnFindConvolutionForwardAlgorithm(h, p->src[b], p->weight, p->conv, p->dst[b], kWanted, &found, perf) ==
          CUDNN_STATUS_SUCCESS && found > 0 && perf[0].status == CUDNN_STATUS_SUCCESS)
    return perf[0].algo;
  return CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM;
}

void choose_backward(cudnnHandle_t h, CudnnConvPlan* p) {
  const ConvShape& s = p->shape;
  int found = 0;
  cudnnConvolutionBwdDataAlgoPerf_t data[6];
  cudnnConvolutionBwdFilterAlgoPerf_t filter[7];
  cudnnStatus_t st = s.fast ? cudnnGetConvolutionBackwardDataAlgorithm_v7(h, p->weight, p->ddst, p->conv, p->dsrc, 6, &found, data)
                            : cudnnFindConvolutionBackwardDataAlgorithm(h, p->weight, p->ddst, p->conv, p->dsrc, 6, &found, data);
  if (st == CUDNN_STATUS_SUCCESS && found > 0) p->bd = data[0].algo;
  st = s.fast ? cudnnGetConvolutionBackwardFilterAlgorithm_v7(h, p->src[s.batch], p->ddst, p->conv, p->weight, 7, &found, filter)
              : cudnnFindConvolutionBackwardFilterAlgorithm(h, p->src[s.batch], p->ddst, p->conv, p->weight, 7, &found, filter);
  if (st == CUDNN_STATUS_SUCCESS && found > 0) p->bf = filter[0].algo;
}

}  // namespace

ConvPlan* conv_plan_create(void* handle, const ConvShape& s) {
  cudnnHandle_t h = cudnn_of(handle);
  CudnnConvPlan* p = new CudnnConvPlan(s);
  const cudnnTensorFormat_t nchw = CUDNN_TENSOR_NCHW;
  const cudnnDataType_t half = CUDNN_DATA_HALF;
  p->bias = tensor4d(nchw, half, 1, s.out_c, 1, 1);
  p->dsrc = tensor4d(nchw, half, s.batch, s.in_c, s.in_h, s.in_w);
  p->ddst = tensor4d(nchw, half, s.batch, s.out_c, s.out_h, s.out_w);
  p->weight = filter4d(nchw, half, s);
  p->conv = convolution(s, half);
  CHECK_CUDA(cudnnSetConvolutionMathType(p->conv, CUDNN_TENSOR_OP_MATH_ALLOW_CONVERSION));
  size_t bytes = 0;
  for (int b = 1; b <= s.batch; ++b) {
    p->src[b] = tensor4d(nchw, half, b, s.in_c, s.in_h, s.in_w);
    p->dst[b] = tensor4d(nchw, half, b, s.out_c, s.out_h, s.out_w);
    p->fw[b] = choose_forward(h, p, b, handle);
    size_t need = 0;
    if (cudnnGetConvolutionForwardWorkspaceSize(h, p->src[b], p->weight, p->conv, p->dst[b], p->fw[b], &need) ==
        CUDNN_STATUS_SUCCESS)
      bytes = std::max(bytes, need);
  }
  if (s.train) {
    choose_backward(h, p);
    size_t need = 0;
    if (cudnnGetConvolutionBackwardFilterWorkspaceSize(h, p->src[s.batch], p->ddst, p->conv, p->weight, p->bf, &need) ==
        CUDNN_STATUS_SUCCESS)
      bytes = std::max(bytes, need);
    need = 0;
    if (cudnnGetConvolutionBackwardDataWorkspaceSize(h, p->weight, p->ddst, p->conv, p->dsrc, p->bd, &need) ==
        CUDNN_STATUS_SUCCESS)
      bytes = std::max(bytes, need);
  }
  if (s.int8) {
    p->qplain.assign(s.batch + 1, nullptr);
    p->qi8x4.assign(s.batch + 1, nullptr);
    p->qu8x4.assign(s.batch + 1, nullptr);
    p->qweight = filter4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, s);
    p->qconv = convolution(s, CUDNN_DATA_INT32);
    CHECK_CUDA(cudnnCreateActivationDescriptor(&p->qact));
    CHECK_CUDA(cudnnSetActivationDescriptor(p->qact, CUDNN_ACTIVATION_IDENTITY, CUDNN_NOT_PROPAGATE_NAN, 0.0));
    for (int b = 1; b <= s.batch; ++b) {
      p->qplain[b] = tensor4d(nchw, CUDNN_DATA_INT8, b, s.in_c, s.in_h, s.in_w);
      p->qi8x4[b] = tensor4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, b, s.in_c, s.in_h, s.in_w);
      p->qu8x4[b] = tensor4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_UINT8x4, b, s.in_c, s.in_h, s.in_w);
      size_t need = 0;
      if (cudnnGetConvolutionForwardWorkspaceSize(h, p->qinput()[b], p->qweight, p->qconv, p->dst[b], p->qfw, &need) ==
          CUDNN_STATUS_SUCCESS)
        bytes = std::max(bytes, need);
    }
  }
  p->workspace_bytes = bytes;
  return p;
}

void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace) {
  CudnnConvPlan* p = static_cast<CudnnConvPlan*>(plan);
  const float one = 1.f, zero = 0.f;
  CHECK_CUDA(cudnnConvolutionForward(cudnn_of(handle), &one, p->src[batch], input, p->weight, weight, p->conv,
                                     p->fw[batch], workspace, p->workspace_bytes, &zero, p->dst[batch], output));
}

// cuDNN's fused convolution would round once; the per-step rounding of a separate bias and
// activation pass is what the host reproduces bit for bit.
void conv_forward_bias_activate(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* bias,
                                int type, Ftype* output, void* workspace) {
  gpu::conv_forward(handle, plan, batch, input, weight, output, workspace);
  const ConvShape& s = plan->shape;
  activation_bias_forward(handle, type, output, bias, batch, s.out_c, s.out_h * s.out_w);
}

void conv_backward_filter(void* handle, ConvPlan* plan, Ftype* input, Ftype* delta, Ftype* weight_update,
                          void* workspace) {
  CudnnConvPlan* p = static_cast<CudnnConvPlan*>(plan);
  const float one = 1.f;
  CHECK_CUDA(cudnnConvolutionBackwardFilter(cudnn_of(handle), &one, p->src[p->shape.batch], input, p->ddst, delta,
                                            p->conv, p->bf, workspace, p->workspace_bytes, &one, p->weight,
                                            weight_update));
}

void conv_backward_data(void* handle, ConvPlan* plan, Ftype* weight, Ftype* delta, Ftype* input_delta,
                        void* workspace) {
  CudnnConvPlan* p = static_cast<CudnnConvPlan*>(plan);
  const float one = 1.f;
  CHECK_CUDA(cudnnConvolutionBackwardData(cudnn_of(handle), &one, p->weight, weight, p->ddst, delta, p->conv, p->bd,
                                          workspace, p->workspace_bytes, &one, p->dsrc, input_delta));
}

void conv_repack_int8(void* handle, ConvPlan* plan, signed char* qweight) {
  const ConvShape& s = plan->shape;
  const size_t bytes = (size_t)s.out_c * (s.in_c / s.groups) * s.size * s.size;
  cudnnTensorDescriptor_t plain = tensor4d(CUDNN_TENSOR_NCHW, CUDNN_DATA_INT8, s.out_c, s.in_c / s.groups, s.size, s.size);
  cudnnTensorDescriptor_t packed =
      tensor4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, s.out_c, s.in_c / s.groups, s.size, s.size);
  void* staging = cuda_malloc(handle, bytes);
  cuda_copy(handle, staging, qweight, bytes);
  const float one = 1.f, zero = 0.f;
  fail_status("cudnnTransformTensor()",
              cudnnTransformTensor(cudnn_of(handle), &one, plain, staging, &zero, packed, qweight));
  cuda_sync(handle);
  cuda_free(handle, staging);
  cudnnDestroyTensorDescriptor(plain);
  cudnnDestroyTensorDescriptor(packed);
}

void conv_forward_int8(void* handle, ConvPlan* plan, int batch, char* qinput, signed char* qweight, float qscale,
                       Ftype* bias, Ftype* output, void* workspace) {
  CudnnConvPlan* p = static_cast<CudnnConvPlan*>(plan);
  const ConvShape& s = p->shape;
  const size_t inputs = (size_t)s.in_c * s.in_h * s.in_w;
  char* plain = qinput + inputs * s.batch;
  const float one = 1.f, zero = 0.f;
  fail_status("cudnnTransformTensor()",
              cudnnTransformTensor(cudnn_of(handle), &one, p->qplain[batch], plain, &zero, p->qi8x4[batch], qinput));
  fail_status("cudnnConvolutionBiasActivationForward()",
              cudnnConvolutionBiasActivationForward(cudnn_of(handle), &qscale, p->qinput()[batch], qinput, p->qweight,
                                                    qweight, p->qconv, p->qfw, workspace, p->workspace_bytes, &zero,
                                                    p->dst[batch], output, p->bias, bias, p->qact, p->dst[batch],
                                                    output));
}

void conv_release_descriptors(void* handle, ORVA::Layer* l) {
  cudnnTensorDescriptor_t* arrays[] = {l->_srcTensorDesc, l->_dstTensorDesc};
  for (cudnnTensorDescriptor_t* a : arrays) {
    if (!a) continue;
    for (int b = 1; b <= l->_batch; ++b)
      if (a[b]) cudnnDestroyTensorDescriptor(a[b]);
    free(a);
  }
  cudnnTensorDescriptor_t singles[] = {l->_dsrcTensorDesc, l->_ddstTensorDesc, l->_normTensorDesc, l->_biasTensorDesc};
  for (cudnnTensorDescriptor_t d : singles)
    if (d) cudnnDestroyTensorDescriptor(d);
  cudnnFilterDescriptor_t filters[] = {l->_weightDesc, l->_dweightDesc, l->_qweightDesc};
  for (cudnnFilterDescriptor_t d : filters)
    if (d) cudnnDestroyFilterDescriptor(d);
  l->_srcTensorDesc = l->_dstTensorDesc = nullptr;
  l->_dsrcTensorDesc = l->_ddstTensorDesc = l->_normTensorDesc = l->_biasTensorDesc = nullptr;
  l->_weightDesc = l->_dweightDesc = l->_qweightDesc = nullptr;
}

}  // namespace gpu
