// Device context, backend-neutral memory calls, the launch grid and tensor file I/O.
#include "orva/cuda.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

#include "backend/backend.h"
#include "orva/util.h"

using ORVA::Backend;
using ORVA::BackendKind;

ORVA::BackendKind create_handle(CudaHandle* h, int gpu_index) {
  *h = CudaHandle{};
  if (gpu_index >= 0) {
    if (Backend* b = ORVA::make_cuda_backend(h, gpu_index)) {
      h->backend = b;
      return BackendKind::CUDA;
    }
    // A run the caller meant for a GPU now runs on the host: said at every message level.
    ORVA_MSG(ALERT, "WARNING: CUDA device %d is not available, running on the host backend\n", gpu_index);
  }
  h->backend = ORVA::make_host_backend();
  return BackendKind::HOST;
}

void destroy_handle(CudaHandle* h) {
  if (!h->backend) return;
  if (h->backend->kind() == BackendKind::CUDA) cuda_destroy_handle(h);
  delete h->backend;
  h->backend = nullptr;
}

BackendKind handle_kind(const void* handle) { return ORVA::backend_of(handle)->kind(); }
const char* handle_name(const void* handle) { return ORVA::backend_of(handle)->name(); }

dim3_t cuda_gridsize(size_t n) {
  const unsigned k = (unsigned)(((n - 1) >> 9) + 1);
  if (k <= 65535) return {k, 1, 1};
  const unsigned x = (unsigned)std::ceil(std::sqrt((double)k));
  const unsigned y = (unsigned)((n - 1) / ((size_t)x * 512) + 1);
  return {x, y, 1};
}

// A failed allocation is reported and thrown, never handed on: every caller would otherwise
// have to check, and one that forgot would write through a null pointer.
void* cuda_malloc(void* handle, size_t bytes) {
  void* p = ORVA::backend_of(handle)->alloc(bytes);
  if (!p && bytes) {
    ORVA_ERROR("can't allocate %zu bytes on the %s backend", bytes, handle_name(handle));
    throw std::bad_alloc();
  }
  return p;
}

void* cuda_calloc(void* handle, size_t count, size_t size) {
  if (size && count > SIZE_MAX / size) {
    ORVA_ERROR("can't allocate %zu x %zu bytes: the size overflows", count, size);
    throw std::bad_alloc();
  }
  void* p = cuda_malloc(handle, count * size);
  if (p) {
    ORVA::backend_of(handle)->memset(p, 0, count * size);
    ORVA::backend_of(handle)->sync();
  }
  return p;
}

void cuda_free(void* handle, void* p) {
  if (p) ORVA::backend_of(handle)->release(p);
}
void cuda_memset(void* handle, void* p, int value, size_t bytes) {
  if (bytes) ORVA::backend_of(handle)->memset(p, value, bytes);
}
void cuda_push(void* handle, void* dst, const void* host_src, size_t bytes) {
  if (bytes) ORVA::backend_of(handle)->push(dst, host_src, bytes);
}
void cuda_pull(void* handle, void* host_dst, const void* src, size_t bytes) {
  if (bytes) ORVA::backend_of(handle)->pull(host_dst, src, bytes);
}
void cuda_copy(void* handle, void* dst, const void* src, size_t bytes) {
  if (bytes && dst != src) ORVA::backend_of(handle)->copy(dst, src, bytes);
}
void cuda_sync(void* handle) { ORVA::backend_of(handle)->sync(); }
void* cuda_malloc_host(void* handle, size_t bytes) {
  void* p = ORVA::backend_of(handle)->alloc_host(bytes);
  if (!p && bytes) {
    ORVA_ERROR("can't allocate %zu bytes of host staging memory", bytes);
    throw std::bad_alloc();
  }
  return p;
}
void cuda_free_host(void* handle, void* p) {
  if (p) ORVA::backend_of(handle)->release_host(p);
}
void cuda_random(void* handle, float* dst, size_t n) {
  if (n) ORVA::backend_of(handle)->random(dst, n);
}

void chk_fread(void* buf, size_t size, size_t n, FILE* f) {
  const size_t got = fread(buf, size, n, f);
  if (got != n) throw got;
}

void chk_fwrite(const void* buf, size_t size, size_t n, FILE* f) {
  const size_t put = fwrite(buf, size, n, f);
  if (put != n) throw put;
}

void chk_fread(_half* buf, size_t n, FILE* f) { chk_fread(buf, 2, n, f); }
void chk_fwrite(const _half* buf, size_t n, FILE* f) { chk_fwrite(buf, 2, n, f); }

namespace {
// Tensors move through a bounded staging buffer, so a large tensor never needs a host copy of
// its own size, and a file that ends early is noticed before much is read.
constexpr size_t kStagingElements = 1 << 16;

// Staging buffer owned for the length of one transfer, freed before any exception leaves.
struct Staging {
  void* handle;
  void* p;
  Staging(void* h, size_t bytes) : handle(h), p(cuda_malloc_host(h, bytes ? bytes : 1)) {}
  ~Staging() { cuda_free_host(handle, p); }
};
}  // namespace

void cuda_fread(void* handle, void* dst, size_t size, size_t n, FILE* f) {
  if (!size || !n) return;
  const size_t chunk = std::max<size_t>(1, kStagingElements * 4 / size);
  size_t got = 0;
  {
    Staging s(handle, std::min(n, chunk) * size);
    while (got < n) {
      const size_t want = std::min(chunk, n - got);
      const size_t read = fread(s.p, size, want, f);
      cuda_push(handle, static_cast<char*>(dst) + got * size, s.p, read * size);
      cuda_sync(handle);
      got += read;
      if (read != want) break;
    }
  }
  if (got != n) throw got;
}

void cuda_fwrite(void* handle, const void* src, size_t size, size_t n, FILE* f) {
  if (!size || !n) return;
  const size_t chunk = std::max<size_t>(1, kStagingElements * 4 / size);
  size_t put = 0;
  {
    Staging s(handle, std::min(n, chunk) * size);
    while (put < n) {
      const size_t want = std::min(chunk, n - put);
      cuda_pull(handle, s.p, static_cast<const char*>(src) + put * size, want * size);
      cuda_sync(handle);
      const size_t wrote = fwrite(s.p, size, want, f);
      put += wrote;
      if (wrote != want) break;
    }
  }
  if (put != n) throw put;
}

void cuda_fread(void* handle, _half* dst, size_t n, FILE* f) {
  size_t got = 0;
  {
    Staging s(handle, 4 * std::min(n, kStagingElements));
    float* buf = static_cast<float*>(s.p);
    while (got < n) {
      const size_t want = std::min(kStagingElements, n - got);
      const size_t read = fread(buf, 4, want, f);
      // Only what was read is narrowed; the rest of a short piece is zeros, not stale bytes.
      if (read < want) memset(buf + read, 0, (want - read) * 4);
      float2half_cpu(buf, reinterpret_cast<_half*>(buf), want);
      cuda_push(handle, dst + got, buf, 2 * want);
      cuda_sync(handle);
      got += read;
      if (read != want) break;
    }
  }
  if (got != n) throw got;
}

void cuda_fwrite(void* handle, const _half* src, size_t n, FILE* f) {
  size_t put = 0;
  {
    Staging s(handle, 4 * std::min(n, kStagingElements));
    float* buf = static_cast<float*>(s.p);
    while (put < n) {
      const size_t want = std::min(kStagingElements, n - put);
      cuda_pull(handle, buf, src + put, 2 * want);
      cuda_sync(handle);
      half2float_cpu(buf, reinterpret_cast<_half*>(buf), want);
      const size_t wrote = fwrite(buf, 4, want, f);
      put += wrote;
      if (wrote != want) break;
    }
  }
  if (put != n) throw put;
}
