// cuDNN convolution: one tensor descriptor pair and one forward algorithm per batch size, so a
// pass with fewer samples than the maximum needs no setup; the 8-bit path packs four channels.
#include <cstdlib>
#include <memory>
#include <vector>

#include "backend/backend.h"
#include "kernels/conv_kernel.h"
#include "backend/cuda_check.h"
#include "orva/activation.h"
#include "base/checked_size.h"
#include "orva/float16.h"

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
        destroy(qdst[b]);
      }
    }
    destroy(dsrc);
    destroy(ddst);
    destroy(bias);
    destroy(qbias);
    if (weight) REPORT_CUDA(cudnnDestroyFilterDescriptor(weight));
    if (qweight) REPORT_CUDA(cudnnDestroyFilterDescriptor(qweight));
    if (conv) REPORT_CUDA(cudnnDestroyConvolutionDescriptor(conv));
    if (qconv) REPORT_CUDA(cudnnDestroyConvolutionDescriptor(qconv));
    if (qact) REPORT_CUDA(cudnnDestroyActivationDescriptor(qact));
  }
  static void destroy(cudnnTensorDescriptor_t d) {
    if (d) REPORT_CUDA(cudnnDestroyTensorDescriptor(d));
  }

  std::vector<cudnnTensorDescriptor_t> src, dst;
  std::vector<cudnnConvolutionFwdAlgo_t> fw;
  cudnnTensorDescriptor_t dsrc = nullptr, ddst = nullptr, bias = nullptr;
  cudnnFilterDescriptor_t weight = nullptr;
  cudnnConvolutionDescriptor_t conv = nullptr;
  cudnnConvolutionBwdDataAlgo_t bd = CUDNN_CONVOLUTION_BWD_DATA_ALGO_0;
  cudnnConvolutionBwdFilterAlgo_t bf = CUDNN_CONVOLUTION_BWD_FILTER_ALGO_0;
  // 8-bit path
  std::vector<cudnnTensorDescriptor_t> qplain, qi8x4, qu8x4, qdst;
  cudnnTensorDescriptor_t qbias = nullptr;
  cudnnFilterDescriptor_t qweight = nullptr;
  cudnnConvolutionDescriptor_t qconv = nullptr;
  cudnnActivationDescriptor_t qact = nullptr;
  cudnnConvolutionFwdAlgo_t qfw = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  const std::vector<cudnnTensorDescriptor_t>& qinput() const { return shape.int8 > 0 ? qu8x4 : qi8x4; }
};

// Each helper destroys what it made when setting it fails, then lets the error go on.
template <typename D, typename Destroy, typename Set>
D made(cudnnStatus_t created, D d, Destroy destroy, Set set) {
  CHECK_CUDA(created);
  try {
    set(d);
  } catch (...) {
    REPORT_CUDA(destroy(d));
    throw;
  }
  return d;
}

cudnnTensorDescriptor_t tensor4d(cudnnTensorFormat_t format, cudnnDataType_t type, int n, int c, int h, int w) {
  cudnnTensorDescriptor_t d = nullptr;
  const cudnnStatus_t st = cudnnCreateTensorDescriptor(&d);
  return made(st, d, cudnnDestroyTensorDescriptor, [&](cudnnTensorDescriptor_t t) {
    CHECK_CUDA(cudnnSetTensor4dDescriptor(t, format, type, n, c, h, w));
  });
}

cudnnFilterDescriptor_t filter4d(cudnnTensorFormat_t format, cudnnDataType_t type, const ConvShape& s) {
  cudnnFilterDescriptor_t d = nullptr;
  const cudnnStatus_t st = cudnnCreateFilterDescriptor(&d);
  return made(st, d, cudnnDestroyFilterDescriptor, [&](cudnnFilterDescriptor_t f) {
    CHECK_CUDA(cudnnSetFilter4dDescriptor(f, type, format, s.out_c, s.in_c / s.groups, s.size, s.size));
  });
}

cudnnConvolutionDescriptor_t convolution(const ConvShape& s, cudnnDataType_t compute) {
  cudnnConvolutionDescriptor_t d = nullptr;
  const cudnnStatus_t st = cudnnCreateConvolutionDescriptor(&d);
  return made(st, d, cudnnDestroyConvolutionDescriptor, [&](cudnnConvolutionDescriptor_t c) {
    CHECK_CUDA(cudnnSetConvolution2dDescriptor(c, s.pad, s.pad, s.stride, s.stride, s.dilation, s.dilation,
                                               CUDNN_CROSS_CORRELATION, compute));
    CHECK_CUDA(cudnnSetConvolutionGroupCount(c, s.groups));
  });
}

// The first result that ran (or would run) and whose workspace the network can give it;
// the searches list failed and unsupported algorithms with their status, and a fast
// algorithm may want more memory than the board has. `fallback` needs no workspace.
template <typename Perf, typename Algo>
Algo pick(const Perf* perf, int found, Algo fallback) {
  for (int i = 0; i < found; ++i)
    if (perf[i].status == CUDNN_STATUS_SUCCESS && perf[i].memory <= (size_t)ORVA::kMaxWorkspaceBytes) return perf[i].algo;
  return fallback;
}

cudnnConvolutionFwdAlgo_t choose_forward(cudnnHandle_t h, CudnnConvPlan* p, int b) {
  const int kWanted = CUDNN_CONVOLUTION_FWD_ALGO_COUNT;
  int found = 0;
  cudnnConvolutionFwdAlgoPerf_t perf[kWanted];
  if (p->shape.fast)
    CHECK_CUDA(cudnnGetConvolutionForwardAlgorithm_v7(h, p->src[b], p->weight, p->conv, p->dst[b], kWanted, &found, perf));
  else
    CHECK_CUDA(cudnnFindConvolutionForwardAlgorithm(h, p->src[b], p->weight, p->conv, p->dst[b], kWanted, &found, perf));
  return pick(perf, found, CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM);
}

void choose_backward(cudnnHandle_t h, CudnnConvPlan* p) {
  const ConvShape& s = p->shape;
  int found = 0;
  cudnnConvolutionBwdDataAlgoPerf_t data[CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT];
  cudnnConvolutionBwdFilterAlgoPerf_t filter[CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT];
  const int nd = CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT, nf = CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT;
  if (s.fast)
    CHECK_CUDA(cudnnGetConvolutionBackwardDataAlgorithm_v7(h, p->weight, p->ddst, p->conv, p->dsrc, nd, &found, data));
  else
    CHECK_CUDA(cudnnFindConvolutionBackwardDataAlgorithm(h, p->weight, p->ddst, p->conv, p->dsrc, nd, &found, data));
  p->bd = pick(data, found, CUDNN_CONVOLUTION_BWD_DATA_ALGO_0);
  if (s.fast)
    CHECK_CUDA(cudnnGetConvolutionBackwardFilterAlgorithm_v7(h, p->src[s.batch], p->ddst, p->conv, p->weight, nf, &found, filter));
  else
    CHECK_CUDA(cudnnFindConvolutionBackwardFilterAlgorithm(h, p->src[s.batch], p->ddst, p->conv, p->weight, nf, &found, filter));
  p->bf = pick(filter, found, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_0);
}

// The 8-bit pass writes float output and reads a float bias (the only types the fused call
// takes with 8-bit input); both live at the start of the workspace, cuDNN's share after them.
size_t align_up(size_t n) { return (n + 255) & ~(size_t)255; }
size_t int8_scratch_bytes(const ConvShape& s) {
  return align_up((size_t)s.batch * s.out_c * s.out_h * s.out_w * sizeof(float)) + align_up((size_t)s.out_c * sizeof(float));
}

}  // namespace

ConvPlan* conv_plan_create(void* handle, const ConvShape& s) {
  cudnnHandle_t h = cudnn_of(handle);
  // Owned here until it is complete: a failed call destroys what was made so far.
  std::unique_ptr<CudnnConvPlan> plan(new CudnnConvPlan(s));
  CudnnConvPlan* p = plan.get();
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
    p->fw[b] = choose_forward(h, p, b);
    size_t need = 0;
    CHECK_CUDA(cudnnGetConvolutionForwardWorkspaceSize(h, p->src[b], p->weight, p->conv, p->dst[b], p->fw[b], &need));
    bytes = std::max(bytes, need);
  }
  if (s.train) {
    choose_backward(h, p);
    size_t need = 0;
    CHECK_CUDA(cudnnGetConvolutionBackwardFilterWorkspaceSize(h, p->src[s.batch], p->ddst, p->conv, p->weight, p->bf, &need));
    bytes = std::max(bytes, need);
    CHECK_CUDA(cudnnGetConvolutionBackwardDataWorkspaceSize(h, p->weight, p->ddst, p->conv, p->dsrc, p->bd, &need));
    bytes = std::max(bytes, need);
  }
  if (s.int8) {
    p->qplain.assign(s.batch + 1, nullptr);
    p->qi8x4.assign(s.batch + 1, nullptr);
    p->qu8x4.assign(s.batch + 1, nullptr);
    p->qdst.assign(s.batch + 1, nullptr);
    p->qweight = filter4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, s);
    p->qbias = tensor4d(nchw, CUDNN_DATA_FLOAT, 1, s.out_c, 1, 1);
    p->qconv = convolution(s, CUDNN_DATA_INT32);
    CHECK_CUDA(cudnnCreateActivationDescriptor(&p->qact));
    CHECK_CUDA(cudnnSetActivationDescriptor(p->qact, CUDNN_ACTIVATION_IDENTITY, CUDNN_NOT_PROPAGATE_NAN, 0.0));
    for (int b = 1; b <= s.batch; ++b) {
      p->qplain[b] = tensor4d(nchw, CUDNN_DATA_INT8, b, s.in_c, s.in_h, s.in_w);
      p->qi8x4[b] = tensor4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, b, s.in_c, s.in_h, s.in_w);
      p->qu8x4[b] = tensor4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_UINT8x4, b, s.in_c, s.in_h, s.in_w);
      p->qdst[b] = tensor4d(nchw, CUDNN_DATA_FLOAT, b, s.out_c, s.out_h, s.out_w);
      size_t need = 0;
      CHECK_CUDA(cudnnGetConvolutionForwardWorkspaceSize(h, p->qinput()[b], p->qweight, p->qconv, p->qdst[b], p->qfw, &need));
      bytes = std::max(bytes, int8_scratch_bytes(s) + need);
    }
  }
  p->workspace_bytes = bytes;
  return plan.release();
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
  struct Descriptors {
    cudnnTensorDescriptor_t plain = nullptr, packed = nullptr;
    ~Descriptors() {
      CudnnConvPlan::destroy(plain);
      CudnnConvPlan::destroy(packed);
    }
  } d;
  d.plain = tensor4d(CUDNN_TENSOR_NCHW, CUDNN_DATA_INT8, s.out_c, s.in_c / s.groups, s.size, s.size);
  d.packed = tensor4d(CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, s.out_c, s.in_c / s.groups, s.size, s.size);
  void* staging = cuda_malloc(handle, bytes);
  cuda_copy(handle, staging, qweight, bytes);
  const float one = 1.f, zero = 0.f;
  const cudnnStatus_t st = cudnnTransformTensor(cudnn_of(handle), &one, d.plain, staging, &zero, d.packed, qweight);
  cuda_sync(handle);
  cuda_free(handle, staging);
  CHECK_CUDA(st);
}

void conv_forward_int8(void* handle, ConvPlan* plan, int batch, char* qinput, signed char* qweight, float qscale,
                       Ftype* bias, Ftype* output, void* workspace) {
  CudnnConvPlan* p = static_cast<CudnnConvPlan*>(plan);
  const ConvShape& s = p->shape;
  const size_t inputs = (size_t)s.in_c * s.in_h * s.in_w;
  const size_t outputs = (size_t)batch * s.out_c * s.out_h * s.out_w;
  char* plain = qinput + inputs * s.batch;
  float* out32 = static_cast<float*>(workspace);
  float* bias32 = reinterpret_cast<float*>(static_cast<char*>(workspace) +
                                           align_up((size_t)s.batch * s.out_c * s.out_h * s.out_w * sizeof(float)));
  const size_t scratch = int8_scratch_bytes(s);
  void* cudnn_workspace = static_cast<char*>(workspace) + scratch;
  half2float_gpu(handle, bias32, bias, s.out_c);
  const float one = 1.f, zero = 0.f;
  CHECK_CUDA(cudnnTransformTensor(cudnn_of(handle), &one, p->qplain[batch], plain, &zero, p->qi8x4[batch], qinput));
  // y = qscale * conv + bias in float, then one rounding to half, as the host does it.
  CHECK_CUDA(cudnnConvolutionBiasActivationForward(cudnn_of(handle), &qscale, p->qinput()[batch], qinput, p->qweight,
                                                   qweight, p->qconv, p->qfw, cudnn_workspace,
                                                   p->workspace_bytes - scratch, &zero, p->qdst[batch], out32, p->qbias,
                                                   bias32, p->qact, p->qdst[batch], out32));
  float2half_gpu(handle, out32, output, outputs);
}

}  // namespace gpu
