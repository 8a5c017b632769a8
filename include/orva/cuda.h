// Per-network device context, memory of the chosen backend, launch grid and tensor file I/O.
//
// A network owns one CudaHandle. On the CUDA backend it carries the stream and the cuBLAS and
// cuDNN contexts bound to it; on the host backend those fields stay zero and the work runs on
// the calling thread. Every launcher, allocation and copy receives the handle (as void*) and
// reaches its backend through it.
#pragma once
#include "orva/export.h"
#include <cstddef>
#include <cstdio>
#include "orva/float16.h"

ORVA_API_BEGIN

// The toolkit's handle types, named without including its headers.
struct CUstream_st;
struct cublasContext;
struct cudnnContext;
struct curandGenerator_st;

namespace ORVA {
class Backend;
enum class BackendKind { HOST = 0, CUDA = 1 };
}  // namespace ORVA

struct CudaHandle {
  CUstream_st* stream = nullptr;
  cublasContext* cublas = nullptr;
  cudnnContext* cudnn = nullptr;
  ORVA::Backend* backend = nullptr;  // owned; says which backend serves this network
};

struct dim3_t {
  unsigned int x, y, z;
};

// --- Backend selection -----------------------------------------------------------------
// True when the library was built with the CUDA backend.
bool cuda_compiled();
// True when that backend is the emulated one (-DORVA_CUDA=EMULATE): CUDA's execution model
// run on the host, for tests; its device 0 is the host and it has no cuDNN.
bool cuda_emulated();
// Number of CUDA devices usable now (0 without the CUDA backend or without a GPU).
int cuda_device_count();
// Creates the context: gpu_index >= 0 asks for that CUDA device, a negative index for the
// host backend. A CUDA request that can't be served falls back to the host with one WARNING
// line. Returns the kind that was made.
ORVA::BackendKind create_handle(CudaHandle* h, int gpu_index);
void destroy_handle(CudaHandle* h);
ORVA::BackendKind handle_kind(const void* handle);
const char* handle_name(const void* handle);

// --- The CUDA-specific calls (no-ops or failures without the CUDA backend) --------------
void cuda_set_device(int device);
int cuda_get_device();
void cuda_get_handle(CudaHandle* h);
void cuda_destroy_handle(CudaHandle* h);
// Device memory of the current CUDA device, for callers without a context.
void* cuda_malloc(size_t bytes);
void* cuda_calloc(size_t count, size_t size);
void cuda_free(void* p);

dim3_t cuda_gridsize(size_t n);

// --- Memory and copies on the backend of a context -------------------------------------
// Tensor memory: device memory on CUDA, 64-byte aligned host memory on the host backend.
void* cuda_malloc(void* handle, size_t bytes);
void* cuda_calloc(void* handle, size_t count, size_t size);
void cuda_free(void* handle, void* p);
// Asynchronous on the context's stream (synchronous on the host backend).
void cuda_memset(void* handle, void* p, int value, size_t bytes);
void cuda_push(void* handle, void* dst, const void* host_src, size_t bytes);
void cuda_pull(void* handle, void* host_dst, const void* src, size_t bytes);
void cuda_copy(void* handle, void* dst, const void* src, size_t bytes);
// Waits for everything queued on the context.
void cuda_sync(void* handle);
// Staging memory for transfers: page-locked on CUDA, plain on the host.
void* cuda_malloc_host(void* handle, size_t bytes);
void cuda_free_host(void* handle, void* p);
// n uniform floats in (0, 1] into backend memory.
void cuda_random(void* handle, float* dst, size_t n);
void cuda_random(float* dst, size_t n);

// --- Tensor file I/O -----------------------------------------------------------------
// A short count is thrown as size_t (the number of items actually transferred).
void cuda_fread(void* handle, void* dst, size_t size, size_t n, FILE* f);
void cuda_fwrite(void* handle, const void* src, size_t size, size_t n, FILE* f);
// Half tensors are stored as little-endian 32-bit floats, four bytes per element.
void cuda_fread(void* handle, _half* dst, size_t n, FILE* f);
void cuda_fwrite(void* handle, const _half* src, size_t n, FILE* f);

void chk_fread(void* buf, size_t size, size_t n, FILE* f);
void chk_fwrite(const void* buf, size_t size, size_t n, FILE* f);
// Host halves keep their in-memory width.
void chk_fread(_half* buf, size_t n, FILE* f);
void chk_fwrite(const _half* buf, size_t n, FILE* f);

ORVA_API_END
