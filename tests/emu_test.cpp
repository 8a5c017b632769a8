// The emulated CUDA backend catches what a GPU would refuse or get wrong: launch shapes
// outside CUDA's limits, a barrier reached by part of a block, results that depend on the
// order threads run in (shown by running in two orders), and cuDNN calls with bad arguments.
#include <gtest/gtest.h>

#include <cudnn.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "emu/cuda_emu.h"

namespace {

// Collects the emulator's faults instead of failing the test.
class Faults {
 public:
  Faults() : _previous(orva_emu::set_fault_hook(&Faults::record)) { seen().clear(); }
  ~Faults() { orva_emu::set_fault_hook(_previous); }
  const std::vector<std::string>& all() const { return seen(); }

 private:
  static std::vector<std::string>& seen() {
    static std::vector<std::string> s;
    return s;
  }
  static void record(const char* what) { seen().push_back(what); }
  orva_emu::FaultHook _previous;
};

constexpr int kThreads = 64;

// Each thread reads its neighbour's slot: without the barrier it may read before the
// neighbour wrote.
__global__ void neighbour_racy(const int* in, int* out) {
  __shared__ int slot[kThreads];
  const int t = threadIdx.x;
  slot[t] = in[blockIdx.x * kThreads + t];
  out[blockIdx.x * kThreads + t] = slot[(t + 1) % kThreads];
}

__global__ void neighbour_synced(const int* in, int* out) {
  __shared__ int slot[kThreads];
  const int t = threadIdx.x;
  slot[t] = in[blockIdx.x * kThreads + t];
  __syncthreads();
  out[blockIdx.x * kThreads + t] = slot[(t + 1) % kThreads];
}

// Every block writes the same element: the last block to run wins.
__global__ void last_writer(int* out) {
  if (threadIdx.x == 0) out[0] = blockIdx.x;
}

// Block sums by a barrier-separated tree.
__global__ void block_sum(const int* in, int* out) {
  __shared__ int part[kThreads];
  const int t = threadIdx.x;
  part[t] = in[blockIdx.x * kThreads + t];
  __syncthreads();
  for (int w = kThreads / 2; w > 0; w /= 2) {
    if (t < w) part[t] += part[t + w];
    __syncthreads();
  }
  if (t == 0) out[blockIdx.x] = part[0];
}

// Threads past n leave before the barrier the others wait at.
__global__ void early_exit_barrier(int n, int* out) {
  if ((int)threadIdx.x >= n) return;
  __syncthreads();
  out[threadIdx.x] = 1;
}

__global__ void mark(int* out) { out[(blockIdx.y * gridDim.x + blockIdx.x) * blockDim.x + threadIdx.x] = 7; }

struct Device {
  int* in = nullptr;
  int* out = nullptr;
  static constexpr int kBlocks = 4, kN = kBlocks * kThreads;
  Device() {
    std::vector<int> v(kN);
    for (int i = 0; i < kN; ++i) v[i] = i * 7 + 3;
    cudaMalloc(&in, kN * sizeof(int));
    cudaMalloc(&out, kN * sizeof(int));
    cudaMemcpy(in, v.data(), kN * sizeof(int), cudaMemcpyHostToDevice);
    cudaMemset(out, 0, kN * sizeof(int));
  }
  ~Device() {
    cudaFree(in);
    cudaFree(out);
  }
  std::vector<int> result() const {
    std::vector<int> v(kN);
    cudaMemcpy(v.data(), out, kN * sizeof(int), cudaMemcpyDeviceToHost);
    return v;
  }
};

// Runs the same launch forwards and backwards; returns whether the results differ.
template <typename Launch>
bool order_dependent(Launch launch) {
  std::vector<int> r[2];
  const orva_emu::Order orders[2] = {orva_emu::Order::Forward, orva_emu::Order::Reverse};
  const orva_emu::Order saved = orva_emu::order();
  for (int k = 0; k < 2; ++k) {
    Device d;
    orva_emu::set_order(orders[k]);
    launch(d);
    r[k] = d.result();
  }
  orva_emu::set_order(saved);
  return r[0] != r[1];
}

TEST(EmulatedCuda, RacesShowAsOrderDependence) {
  Faults faults;
  EXPECT_TRUE(order_dependent([](Device& d) { ORVA_LAUNCH(neighbour_racy, Device::kBlocks, kThreads, 0, 0)(d.in, d.out); }));
  EXPECT_TRUE(order_dependent([](Device& d) { ORVA_LAUNCH(last_writer, Device::kBlocks, kThreads, 0, 0)(d.out); }));
  EXPECT_FALSE(order_dependent([](Device& d) { ORVA_LAUNCH(neighbour_synced, Device::kBlocks, kThreads, 0, 0)(d.in, d.out); }));
  EXPECT_TRUE(faults.all().empty());

  // the synchronised versions compute the right thing in any order
  orva_emu::set_order(orva_emu::Order::Shuffle, 12345);
  Device d;
  ORVA_LAUNCH(block_sum, Device::kBlocks, kThreads, 0, 0)(d.in, d.out);
  orva_emu::set_order(orva_emu::Order::Forward);
  const std::vector<int> sums = d.result();
  for (int b = 0; b < Device::kBlocks; ++b) {
    int expect = 0;
    for (int t = 0; t < kThreads; ++t) expect += (b * kThreads + t) * 7 + 3;
    EXPECT_EQ(sums[b], expect) << "block " << b;
  }
  EXPECT_TRUE(faults.all().empty());
}

TEST(EmulatedCuda, BarrierReachedByPartOfABlockIsReported) {
  for (int first_order = 0; first_order < 2; ++first_order) {
    orva_emu::set_order(first_order ? orva_emu::Order::Reverse : orva_emu::Order::Forward);
    Faults faults;
    Device d;
    ORVA_LAUNCH(early_exit_barrier, 1, kThreads, 0, 0)(kThreads / 2, d.out);
    ORVA_LAUNCH(early_exit_barrier, 1, kThreads, 0, 0)(kThreads, d.out);  // whole block: fine
    ASSERT_EQ(faults.all().size(), 1u);
    EXPECT_NE(faults.all()[0].find("early_exit_barrier: __syncthreads reached by"), std::string::npos) << faults.all()[0];
  }
  orva_emu::set_order(orva_emu::Order::Forward);
}

TEST(EmulatedCuda, LaunchesOutsideCudaLimitsAreRefused) {
  struct Shape {
    dim3 grid, block;
    size_t shmem;
  };
  const Shape refused[] = {
      {dim3(0), dim3(32), 0},           {dim3(1), dim3(0), 0},           {dim3(1), dim3(1025), 0},
      {dim3(1), dim3(32, 32, 2), 0},    {dim3(1), dim3(1, 1, 65), 0},    {dim3(1, 65536), dim3(32), 0},
      {dim3(1, 1, 65536), dim3(32), 0}, {dim3(1), dim3(32), 49 * 1024},
  };
  Device d;
  for (const Shape& s : refused) {
    Faults faults;
    ORVA_LAUNCH(mark, s.grid, s.block, s.shmem, 0)(d.out);
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidConfiguration);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);  // reading clears it
    EXPECT_EQ(faults.all().size(), 1u);
  }
  EXPECT_EQ(d.result(), std::vector<int>(Device::kN, 0)) << "a refused launch ran";
  Faults faults;
  ORVA_LAUNCH(mark, dim3(2, 2), dim3(Device::kN / 4), 0, 0)(d.out);  // the limits themselves are fine
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
  EXPECT_EQ(d.result(), std::vector<int>(Device::kN, 7));
  EXPECT_TRUE(faults.all().empty());
}

TEST(EmulatedCuda, DeviceMemoryStartsAsNaNAndCopiesStayInside) {
  Faults faults;
  float* p = nullptr;
  ASSERT_EQ(cudaMalloc(&p, 16 * sizeof(float)), cudaSuccess);
  float host[17];
  ASSERT_EQ(cudaMemcpy(host, p, 16 * sizeof(float), cudaMemcpyDeviceToHost), cudaSuccess);
  for (int i = 0; i < 16; ++i) EXPECT_TRUE(std::isnan(host[i])) << i;
  EXPECT_EQ(cudaMemcpy(host, p, 17 * sizeof(float), cudaMemcpyDeviceToHost), cudaErrorInvalidValue);
  EXPECT_EQ(cudaMemcpy(p, host, 4, cudaMemcpyDeviceToHost), cudaErrorInvalidValue);  // directions swapped
  EXPECT_EQ(cudaFree(host), cudaErrorInvalidValue);
  EXPECT_EQ(faults.all().size(), 3u);
  cudaGetLastError();
  cudaFree(p);
}

}  // namespace

// --- cuDNN ------------------------------------------------------------------------------------

namespace {

struct Desc {
  Desc() {
    cudnnCreateTensorDescriptor(&x);
    cudnnCreateTensorDescriptor(&y);
    cudnnCreateTensorDescriptor(&b);
    cudnnCreateFilterDescriptor(&w);
    cudnnCreateConvolutionDescriptor(&conv);
    cudnnCreateActivationDescriptor(&act);
    cudnnCreate(&h);
  }
  ~Desc() {
    cudnnDestroyTensorDescriptor(x);
    cudnnDestroyTensorDescriptor(y);
    cudnnDestroyTensorDescriptor(b);
    cudnnDestroyFilterDescriptor(w);
    cudnnDestroyConvolutionDescriptor(conv);
    cudnnDestroyActivationDescriptor(act);
    cudnnDestroy(h);
  }
  // A half 3x3 convolution of 2 x 8 x 6 x 6 in `groups` groups, padded to keep the size.
  void half_conv(int groups, int y_side = 6) {
    cudnnSetTensor4dDescriptor(x, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 2, 8, 6, 6);
    cudnnSetFilter4dDescriptor(w, CUDNN_DATA_HALF, CUDNN_TENSOR_NCHW, 4, 8 / groups, 3, 3);
    cudnnSetConvolution2dDescriptor(conv, 1, 1, 1, 1, 1, 1, CUDNN_CROSS_CORRELATION, CUDNN_DATA_FLOAT);
    cudnnSetConvolutionGroupCount(conv, groups);
    cudnnSetTensor4dDescriptor(y, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 2, 4, y_side, y_side);
  }
  cudnnTensorDescriptor_t x, y, b;
  cudnnFilterDescriptor_t w;
  cudnnConvolutionDescriptor_t conv;
  cudnnActivationDescriptor_t act;
  cudnnHandle_t h;
};

}  // namespace

TEST(EmulatedCudnn, BadCallsGetTheDocumentedStatusAndAFault) {
  void* mem = nullptr;
  ASSERT_EQ(cudaMalloc(&mem, 1 << 20), cudaSuccess);
  char* ws = static_cast<char*>(mem) + (1 << 19);
  const float one = 1.f, zero = 0.f;
  struct Case {
    const char* what;
    cudnnStatus_t want;
    std::function<cudnnStatus_t(Desc&)> call;
  };
  size_t bytes = 0;
  const long live = orva_emu::cudnn_live_descriptors();
  const std::vector<Case> cases = {
      {"zero size", CUDNN_STATUS_BAD_PARAM,
       [](Desc& d) { return cudnnSetTensor4dDescriptor(d.x, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 1, 0, 4, 4); }},
      {"vector type outside the vector layout", CUDNN_STATUS_BAD_PARAM,
       [](Desc& d) { return cudnnSetTensor4dDescriptor(d.x, CUDNN_TENSOR_NCHW, CUDNN_DATA_INT8x4, 1, 4, 4, 4); }},
      {"vector filter of 2 channels", CUDNN_STATUS_BAD_PARAM,
       [](Desc& d) { return cudnnSetFilter4dDescriptor(d.w, CUDNN_DATA_INT8x4, CUDNN_TENSOR_NCHW_VECT_C, 4, 2, 3, 3); }},
      {"x.C != w.C x groups", CUDNN_STATUS_BAD_PARAM,
       [&](Desc& d) {
         d.half_conv(1);
         cudnnSetConvolutionGroupCount(d.conv, 2);
         return cudnnGetConvolutionForwardWorkspaceSize(d.h, d.x, d.w, d.conv, d.y, CUDNN_CONVOLUTION_FWD_ALGO_GEMM, &bytes);
       }},
      {"output dims off the rule", CUDNN_STATUS_BAD_PARAM,
       [&](Desc& d) {
         d.half_conv(2, 5);
         return cudnnConvolutionForward(d.h, &one, d.x, mem, d.w, mem, d.conv, CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM,
                                        nullptr, 0, &zero, d.y, mem);
       }},
      {"half input with float filters", CUDNN_STATUS_NOT_SUPPORTED,
       [&](Desc& d) {
         d.half_conv(1);
         cudnnSetFilter4dDescriptor(d.w, CUDNN_DATA_FLOAT, CUDNN_TENSOR_NCHW, 4, 8, 3, 3);
         return cudnnConvolutionForward(d.h, &one, d.x, mem, d.w, mem, d.conv, CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM,
                                        nullptr, 0, &zero, d.y, mem);
       }},
      {"8-bit vector input with half output and bias", CUDNN_STATUS_NOT_SUPPORTED,
       [&](Desc& d) {
         cudnnSetTensor4dDescriptor(d.x, CUDNN_TENSOR_NCHW_VECT_C, CUDNN_DATA_INT8x4, 1, 4, 6, 6);
         cudnnSetFilter4dDescriptor(d.w, CUDNN_DATA_INT8x4, CUDNN_TENSOR_NCHW_VECT_C, 4, 4, 3, 3);
         cudnnSetConvolution2dDescriptor(d.conv, 1, 1, 1, 1, 1, 1, CUDNN_CROSS_CORRELATION, CUDNN_DATA_INT32);
         cudnnSetTensor4dDescriptor(d.y, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 1, 4, 6, 6);
         cudnnSetTensor4dDescriptor(d.b, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 1, 4, 1, 1);
         cudnnSetActivationDescriptor(d.act, CUDNN_ACTIVATION_IDENTITY, CUDNN_NOT_PROPAGATE_NAN, 0.0);
         return cudnnConvolutionBiasActivationForward(d.h, &one, d.x, mem, d.w, mem, d.conv,
                                                      CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM, ws, 1 << 18,
                                                      &zero, d.y, mem, d.b, mem, d.act, d.y, mem);
       }},
      {"workspace one byte short", CUDNN_STATUS_BAD_PARAM,
       [&](Desc& d) {
         d.half_conv(1);
         cudnnGetConvolutionForwardWorkspaceSize(d.h, d.x, d.w, d.conv, d.y, CUDNN_CONVOLUTION_FWD_ALGO_GEMM, &bytes);
         return cudnnConvolutionForward(d.h, &one, d.x, mem, d.w, mem, d.conv, CUDNN_CONVOLUTION_FWD_ALGO_GEMM, ws,
                                        bytes - 1, &zero, d.y, mem);
       }},
      {"destroyed descriptor", CUDNN_STATUS_BAD_PARAM,
       [&](Desc& d) {
         d.half_conv(1);
         cudnnTensorDescriptor_t gone;
         cudnnCreateTensorDescriptor(&gone);
         cudnnSetTensor4dDescriptor(gone, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 2, 8, 6, 6);
         cudnnDestroyTensorDescriptor(gone);
         return cudnnGetConvolutionForwardWorkspaceSize(d.h, gone, d.w, d.conv, d.y, CUDNN_CONVOLUTION_FWD_ALGO_GEMM,
                                                        &bytes);
       }},
      {"negative batch-norm epsilon", CUDNN_STATUS_BAD_PARAM,
       [&](Desc& d) {
         cudnnSetTensor4dDescriptor(d.x, CUDNN_TENSOR_NCHW, CUDNN_DATA_HALF, 2, 4, 3, 3);
         cudnnSetTensor4dDescriptor(d.b, CUDNN_TENSOR_NCHW, CUDNN_DATA_FLOAT, 1, 4, 1, 1);
         return cudnnBatchNormalizationForwardTraining(d.h, CUDNN_BATCHNORM_SPATIAL, &one, &zero, d.x, mem, d.x, mem,
                                                       d.b, mem, mem, 0.1, nullptr, nullptr, -1e-3, nullptr, nullptr);
       }},
  };
  for (const Case& c : cases) {
    Desc d;
    Faults faults;
    EXPECT_EQ(c.call(d), c.want) << c.what;
    EXPECT_EQ(faults.all().size(), 1u) << c.what;
  }
  EXPECT_EQ(orva_emu::cudnn_live_descriptors(), live);

  // A call given exactly its workspace succeeds and leaves the workspace poisoned; the
  // searches list what cannot run, with its status.
  Desc d;
  Faults faults;
  d.half_conv(2);
  ASSERT_EQ(cudnnGetConvolutionForwardWorkspaceSize(d.h, d.x, d.w, d.conv, d.y, CUDNN_CONVOLUTION_FWD_ALGO_GEMM, &bytes),
            CUDNN_STATUS_SUCCESS);
  ASSERT_GT(bytes, 0u);
  memset(ws, 0, bytes);
  EXPECT_EQ(cudnnConvolutionForward(d.h, &one, d.x, mem, d.w, mem, d.conv, CUDNN_CONVOLUTION_FWD_ALGO_GEMM, ws, bytes,
                                    &zero, d.y, static_cast<char*>(mem) + 4096),
            CUDNN_STATUS_SUCCESS);
  EXPECT_EQ((unsigned char)ws[bytes - 1], 0xffu);
  cudnnConvolutionFwdAlgoPerf_t perf[CUDNN_CONVOLUTION_FWD_ALGO_COUNT];
  int found = 0;
  ASSERT_EQ(cudnnGetConvolutionForwardAlgorithm_v7(d.h, d.x, d.w, d.conv, d.y, CUDNN_CONVOLUTION_FWD_ALGO_COUNT, &found,
                                                   perf),
            CUDNN_STATUS_SUCCESS);
  int unsupported = 0;
  for (int i = 0; i < found; ++i) unsupported += perf[i].status == CUDNN_STATUS_NOT_SUPPORTED;
  EXPECT_GT(unsupported, 0);
  EXPECT_TRUE(faults.all().empty());
  cudaFree(mem);
}
