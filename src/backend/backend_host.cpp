// The host backend: tensors in 64-byte aligned host memory, work on the calling thread
// (with TBB loops inside the operations), so "asynchronous" calls are already complete.
#include <cstring>

#include "backend/backend.h"
#include "orva/util.h"

namespace ORVA {
namespace {

class HostBackend final : public Backend {
 public:
  ~HostBackend() override {
    for (auto& s : _scratch) free_aligned(s.p);
  }
  BackendKind kind() const override { return BackendKind::HOST; }
  const char* name() const override { return "host"; }
  void* alloc(size_t bytes) override { return malloc_aligned(bytes ? bytes : 1); }
  void release(void* p) override { free_aligned(p); }
  void memset(void* p, int value, size_t bytes) override { ::memset(p, value, bytes); }
  void push(void* dst, const void* src, size_t bytes) override { memmove(dst, src, bytes); }
  void pull(void* dst, const void* src, size_t bytes) override { memmove(dst, src, bytes); }
  void copy(void* dst, const void* src, size_t bytes) override { memmove(dst, src, bytes); }
  void sync() override {}
  void* alloc_host(size_t bytes) override { return malloc_aligned(bytes ? bytes : 1); }
  void release_host(void* p) override { free_aligned(p); }
  void random(float* dst, size_t n) override {
    // (0, 1]: qrand is in [0, 2^31 - 1]
    for (size_t i = 0; i < n; ++i) dst[i] = (float)(qrand() + 1.0) * 4.656613e-10f;
  }
  void* scratch(int slot, size_t bytes) override {
    if (slot < 0 || slot >= kScratchSlots) return nullptr;
    Scratch& s = _scratch[slot];
    if (bytes > s.bytes) {
      free_aligned(s.p);
      s.p = malloc_aligned(bytes);
      s.bytes = s.p ? bytes : 0;
    }
    return s.p;
  }

 private:
  struct Scratch {
    void* p = nullptr;
    size_t bytes = 0;
  };
  Scratch _scratch[kScratchSlots];
};

}  // namespace

Backend* make_host_backend() { return new HostBackend; }

}  // namespace ORVA

#if !ORVA_HAVE_CUDA
// Without the CUDA backend the CUDA-specific entry points do nothing or serve host memory.
namespace ORVA {
Backend* make_cuda_backend(CudaHandle*, int) { return nullptr; }
}  // namespace ORVA
bool cuda_compiled() { return false; }
bool cuda_emulated() { return false; }
int cuda_device_count() { return 0; }
void cuda_set_device(int) {}
int cuda_get_device() { return 0; }
void cuda_get_handle(CudaHandle*) {}
void cuda_destroy_handle(CudaHandle*) {}
void* cuda_malloc(size_t bytes) { return malloc_aligned(bytes ? bytes : 1); }
void* cuda_calloc(size_t count, size_t size) { return calloc_aligned(count, size ? size : 1); }
void cuda_free(void* p) { free_aligned(p); }
void cuda_random(float* dst, size_t n) {
  for (size_t i = 0; i < n; ++i) dst[i] = (float)(qrand() + 1.0) * 4.656613e-10f;
}
#endif
