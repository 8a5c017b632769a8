// The compute-backend interface and the dispatch of launchers to their twins.
//
// A kernel family `foo` has three sources: foo.cpp holds the public launchers (argument
// handling, then ORVA_DISPATCH), foo_kernel.cu holds the CUDA kernels with their launchers in
// namespace gpu, and foo_host.cpp the host twins under the same names in namespace cpu.
// Only this header and the backend sources know whether CUDA was compiled in.
#pragma once
#include <cstddef>
#include "orva/cuda.h"

namespace ORVA {

class Backend {
 public:
  virtual ~Backend() = default;
  virtual BackendKind kind() const = 0;
  virtual const char* name() const = 0;
  virtual void* alloc(size_t bytes) = 0;
  virtual void release(void* p) = 0;
  virtual void memset(void* p, int value, size_t bytes) = 0;
  virtual void push(void* dst, const void* host_src, size_t bytes) = 0;
  virtual void pull(void* host_dst, const void* src, size_t bytes) = 0;
  virtual void copy(void* dst, const void* src, size_t bytes) = 0;
  virtual void sync() = 0;
  virtual void* alloc_host(size_t bytes) = 0;
  virtual void release_host(void* p) = 0;
  virtual void random(float* dst, size_t n) = 0;
  // Grow-only host scratch owned by the backend, for host twins that need float copies of
  // their operands (slot 0..kScratchSlots-1; a slot is reused by the next call that asks).
  // Reallocates only when a larger size is asked for, so a steady pass allocates nothing.
  static constexpr int kScratchSlots = 4;
  virtual void* scratch(int slot, size_t bytes) = 0;
};

Backend* make_host_backend();
// Null when the library has no CUDA backend or the device can't be used; fills the
// handle's stream and library contexts on success.
Backend* make_cuda_backend(CudaHandle* h, int device);

inline Backend* backend_of(const void* handle) {
  return static_cast<const CudaHandle*>(handle)->backend;
}
inline bool on_cuda(const void* handle) { return backend_of(handle)->kind() == BackendKind::CUDA; }

}  // namespace ORVA

#if ORVA_HAVE_CUDA
#define ORVA_DISPATCH(handle, fn, ...) \
  (ORVA::on_cuda(handle) ? gpu::fn(handle, __VA_ARGS__) : cpu::fn(handle, __VA_ARGS__))
#else
#define ORVA_DISPATCH(handle, fn, ...) cpu::fn(handle, __VA_ARGS__)
#endif
