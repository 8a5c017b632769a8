// Runs a test on every backend present in the process: always the host, and the first CUDA
// device when the library has the CUDA backend and a GPU is visible.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "orva/cuda.h"

namespace orva_test {

// gpu_index values to run on: -1 (host) first, then 0 when a CUDA device is usable (in an
// emulated build, the emulated device).
std::vector<int> test_backends();
std::string backend_param_name(const ::testing::TestParamInfo<int>& info);

// A fresh seed per process, printed once; ORVA_TEST_SEED replays a run.
uint32_t test_seed();

// Tensor memory of one backend, released with it.
template <typename T>
class Buffer {
 public:
  Buffer(void* handle, size_t n) : _h(handle), _n(n), _p(static_cast<T*>(cuda_malloc(handle, n * sizeof(T) + 1))) {}
  Buffer(void* handle, const std::vector<T>& host) : Buffer(handle, host.size()) { upload(host); }
  ~Buffer() { cuda_free(_h, _p); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  T* get() const { return _p; }
  operator T*() const { return _p; }
  size_t size() const { return _n; }
  void upload(const std::vector<T>& host) {
    cuda_push(_h, _p, host.data(), std::min(host.size(), _n) * sizeof(T));
    cuda_sync(_h);
  }
  std::vector<T> download() const {
    std::vector<T> host(_n);
    cuda_pull(_h, host.data(), _p, _n * sizeof(T));
    cuda_sync(_h);
    return host;
  }

 private:
  void* _h;
  size_t _n;
  T* _p;
};

// Fixture parameterised by gpu_index; each test gets its own context on that backend.
class OnEachBackend : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override;
  void TearDown() override { destroy_handle(&_ctx); }
  void* handle() { return &_ctx; }
  bool on_cuda() const { return handle_kind(&_ctx) == ORVA::BackendKind::CUDA; }

 private:
  CudaHandle _ctx{};
};

}  // namespace orva_test

// Instantiates a suite derived from OnEachBackend over every backend present.
#define ORVA_ON_EACH_BACKEND(Suite)                                                     \
  INSTANTIATE_TEST_SUITE_P(Backends, Suite, ::testing::ValuesIn(orva_test::test_backends()), \
                           orva_test::backend_param_name)
