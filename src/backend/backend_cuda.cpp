// The CUDA backend: device memory, the network's non-blocking stream with cuBLAS and cuDNN
// bound to it, page-locked staging and the per-device cuRAND generators.
#include <ctime>

#include "base/error.h"
#include "backend/backend.h"
#include "backend/cuda_check.h"

bool cuda_compiled() { return true; }
bool cuda_emulated() { return ORVA_CUDA_EMULATED; }

int cuda_device_count() {
  int n = 0;
  if (cudaGetDeviceCount(&n) != cudaSuccess) {
    cudaGetLastError();  // clear the sticky "no device" error
    return 0;
  }
  return n;
}

void cuda_set_device(int device) {
  if (device >= 0) CHECK_CUDA(cudaSetDevice(device));
}

int cuda_get_device() {
  int d = 0;
  if (cudaGetDevice(&d) != cudaSuccess) return 0;
  return d;
}

void cuda_get_handle(CudaHandle* h) {
  cudaStream_t stream = nullptr;
  cublasHandle_t cublas = nullptr;
  cudnnHandle_t cudnn = nullptr;
  // Not checked here: a context that failed stays zero and the caller falls back.
  cudaStreamCreateWithFlags(&stream, cudaStreamNonBlocking);
  if (cublasCreate(&cublas) == CUBLAS_STATUS_SUCCESS) cublasSetStream(cublas, stream);
  if (cudnnCreate(&cudnn) == CUDNN_STATUS_SUCCESS) cudnnSetStream(cudnn, stream);
  h->stream = stream;
  h->cublas = cublas;
  h->cudnn = cudnn;
}

void cuda_destroy_handle(CudaHandle* h) {
  if (h->cudnn) cudnnDestroy(h->cudnn);
  if (h->cublas) cublasDestroy(h->cublas);
  if (h->stream) cudaStreamDestroy(h->stream);
}

void* cuda_malloc(size_t bytes) {
  void* p = nullptr;
  CHECK_CUDA(cudaMalloc(&p, bytes));
  return p;
}

void* cuda_calloc(size_t count, size_t size) {
  void* p = cuda_malloc(count * size);
  if (p) CHECK_CUDA(cudaMemset(p, 0, count * size));
  return p;
}

void cuda_free(void* p) { CHECK_CUDA(cudaFree(p)); }

void cuda_random(float* dst, size_t n) {
  // One generator per device for the whole process, seeded with the time at first use.
  static curandGenerator_t generators[16];
  const int d = cuda_get_device();
  if (d < 0 || d >= 16)
    ORVA_THROW("device %d has no random generator slot (16 slots)", d);
  if (!generators[d]) {
    CHECK_CUDA(curandCreateGenerator(&generators[d], CURAND_RNG_PSEUDO_DEFAULT));
    CHECK_CUDA(curandSetPseudoRandomGeneratorSeed(generators[d], (unsigned long long)time(nullptr)));
  }
  CHECK_CUDA(curandGenerateUniform(generators[d], dst, n));
}

namespace ORVA {
namespace {

class CudaBackend final : public Backend {
 public:
  CudaBackend(CudaHandle* h, int device) : _h(h), _device(device) {}
  BackendKind kind() const override { return BackendKind::CUDA; }
  // The emulated build says so wherever a backend is named, so it never passes for a GPU.
  const char* name() const override { return ORVA_CUDA_EMULATED ? "cuda-emulated" : "cuda"; }
  void* alloc(size_t bytes) override {
    void* p = nullptr;
    if (cudaMalloc(&p, bytes ? bytes : 1) != cudaSuccess) {
      cudaGetLastError();
      return nullptr;
    }
    return p;
  }
  void release(void* p) override { CHECK_CUDA(cudaFree(p)); }
  void memset(void* p, int value, size_t bytes) override {
    CHECK_CUDA(cudaMemsetAsync(p, value, bytes, _h->stream));
  }
  void push(void* dst, const void* src, size_t bytes) override {
    CHECK_CUDA(cudaMemcpyAsync(dst, src, bytes, cudaMemcpyHostToDevice, _h->stream));
  }
  void pull(void* dst, const void* src, size_t bytes) override {
    CHECK_CUDA(cudaMemcpyAsync(dst, src, bytes, cudaMemcpyDeviceToHost, _h->stream));
  }
  void copy(void* dst, const void* src, size_t bytes) override {
    CHECK_CUDA(cudaMemcpyAsync(dst, src, bytes, cudaMemcpyDeviceToDevice, _h->stream));
  }
  void sync() override { CHECK_CUDA(cudaStreamSynchronize(_h->stream)); }
  void* alloc_host(size_t bytes) override {
    void* p = nullptr;
    if (cudaMallocHost(&p, bytes ? bytes : 1) != cudaSuccess) {
      cudaGetLastError();
      return nullptr;
    }
    return p;
  }
  void release_host(void* p) override { CHECK_CUDA(cudaFreeHost(p)); }
  void random(float* dst, size_t n) override {
    // The generator runs on the default stream: order it after the network's work.
    sync();
    cuda_set_device(_device);
    cuda_random(dst, n);
    CHECK_CUDA(cudaDeviceSynchronize());
  }
  void* scratch(int, size_t) override { return nullptr; }  // device twins need no host scratch

 private:
  CudaHandle* _h;
  int _device;
};

}  // namespace

Backend* make_cuda_backend(CudaHandle* h, int device) {
  if (device >= cuda_device_count()) return nullptr;
  if (cudaSetDevice(device) != cudaSuccess) {
    cudaGetLastError();
    return nullptr;
  }
  cuda_get_handle(h);
  if (!h->stream || !h->cublas || !h->cudnn) {
    cuda_destroy_handle(h);
    *h = CudaHandle{};
    return nullptr;
  }
  return new CudaBackend(h, device);
}

}  // namespace ORVA
