// Emulated CUDA: the runtime calls the backend makes. Device memory is host memory, filled
// with NaN bytes when allocated so that a read of an element nobody wrote shows up. Every
// call completes before it returns, so streams and events only keep their bookkeeping; the
// checks a device makes on pointers, sizes and handles are kept.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "emu/cuda_emu.h"
#include "emu/emu_state.h"

struct CUstream_st {
  unsigned flags = 0;
};
struct CUevent_st {
  std::chrono::steady_clock::time_point when{};
  bool recorded = false;
};

namespace orva_emu {
namespace {

thread_local cudaError_t t_last_error = cudaSuccess;

struct Registry {
  std::mutex lock;
  std::map<const char*, size_t> device;  // start -> bytes
  std::set<void*> pinned;
  std::set<cudaStream_t> streams;
  std::set<cudaEvent_t> events;
  int current_device = 0;
};
Registry& registry() {
  static Registry r;
  return r;
}

cudaError_t fail(cudaError_t e) {
  t_last_error = e;
  return e;
}

constexpr size_t kAlign = 256;  // cudaMalloc's alignment guarantee

const char* kind_text(cudaMemcpyKind k) {
  switch (k) {
    case cudaMemcpyHostToDevice: return "host to device";
    case cudaMemcpyDeviceToHost: return "device to host";
    case cudaMemcpyDeviceToDevice: return "device to device";
    case cudaMemcpyHostToHost: return "host to host";
    default: return "default";
  }
}

cudaError_t check_copy(const char* call, void* dst, const void* src, size_t count, cudaMemcpyKind kind,
                       cudaStream_t stream) {
  if (!stream_valid(stream)) {
    fault("%s on a stream that does not exist", call);
    return fail(cudaErrorInvalidResourceHandle);
  }
  if (count == 0) return cudaSuccess;
  const bool dst_dev = device_range(dst, count), src_dev = device_range(src, count);
  bool ok = true;
  switch (kind) {
    case cudaMemcpyHostToDevice: ok = dst_dev && !device_range(src, 1); break;
    case cudaMemcpyDeviceToHost: ok = src_dev && !device_range(dst, 1); break;
    case cudaMemcpyDeviceToDevice: ok = dst_dev && src_dev; break;
    case cudaMemcpyHostToHost: ok = !device_range(dst, 1) && !device_range(src, 1); break;
    default: ok = true;
  }
  if (!ok) {
    fault("%s of %zu bytes %s: destination %p is %s, source %p is %s", call, count, kind_text(kind), dst,
          dst_dev ? "device memory" : "not a device range", src, src_dev ? "device memory" : "not a device range");
    return fail(cudaErrorInvalidValue);
  }
  memmove(dst, src, count);
  return cudaSuccess;
}

cudaError_t do_memset(const char* call, void* p, int value, size_t count, cudaStream_t stream) {
  if (!stream_valid(stream)) {
    fault("%s on a stream that does not exist", call);
    return fail(cudaErrorInvalidResourceHandle);
  }
  if (count == 0) return cudaSuccess;
  if (!device_range(p, count)) {
    fault("%s of %zu bytes at %p: not inside one device allocation", call, count, p);
    return fail(cudaErrorInvalidValue);
  }
  memset(p, value, count);
  return cudaSuccess;
}

}  // namespace

void set_last_error(cudaError_t e) { t_last_error = e; }

bool stream_valid(cudaStream_t s) {
  if (!s || s == cudaStreamLegacy || s == cudaStreamPerThread) return true;
  std::lock_guard<std::mutex> g(registry().lock);
  return registry().streams.count(s) > 0;
}

bool device_range(const void* p, size_t bytes) {
  const char* c = static_cast<const char*>(p);
  std::lock_guard<std::mutex> g(registry().lock);
  auto& dev = registry().device;
  auto it = dev.upper_bound(c);
  if (it == dev.begin()) return false;
  --it;
  return c >= it->first && c + bytes <= it->first + it->second;
}

}  // namespace orva_emu

using namespace orva_emu;

// --- errors and devices ----------------------------------------------------------------------

cudaError_t cudaGetLastError() {
  const cudaError_t e = t_last_error;
  t_last_error = cudaSuccess;
  return e;
}
cudaError_t cudaPeekAtLastError() { return t_last_error; }

const char* cudaGetErrorName(cudaError_t e) {
  switch (e) {
    case cudaSuccess: return "cudaSuccess";
    case cudaErrorInvalidValue: return "cudaErrorInvalidValue";
    case cudaErrorMemoryAllocation: return "cudaErrorMemoryAllocation";
    case cudaErrorInvalidConfiguration: return "cudaErrorInvalidConfiguration";
    case cudaErrorInvalidDevice: return "cudaErrorInvalidDevice";
    case cudaErrorInvalidResourceHandle: return "cudaErrorInvalidResourceHandle";
    case cudaErrorLaunchFailure: return "cudaErrorLaunchFailure";
    default: return "cudaErrorUnknown";
  }
}

const char* cudaGetErrorString(cudaError_t e) {
  switch (e) {
    case cudaSuccess: return "no error";
    case cudaErrorInvalidValue: return "invalid argument";
    case cudaErrorMemoryAllocation: return "out of memory";
    case cudaErrorInvalidConfiguration: return "invalid configuration argument";
    case cudaErrorInvalidDevice: return "invalid device ordinal";
    case cudaErrorInvalidResourceHandle: return "invalid resource handle";
    case cudaErrorLaunchFailure: return "unspecified launch failure";
    default: return "unknown error (emulated CUDA)";
  }
}

// One device: the host.
cudaError_t cudaGetDeviceCount(int* count) {
  *count = 1;
  return cudaSuccess;
}

cudaError_t cudaSetDevice(int device) {
  if (device != 0) return fail(cudaErrorInvalidDevice);
  registry().current_device = device;
  return cudaSuccess;
}

cudaError_t cudaGetDevice(int* device) {
  *device = registry().current_device;
  return cudaSuccess;
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device) {
  if (device != 0) return fail(cudaErrorInvalidDevice);
  *prop = cudaDeviceProp{};
  strncpy(prop->name, "ORVA emulated CUDA device", sizeof(prop->name) - 1);
  prop->major = 7;
  prop->minor = 2;
  prop->totalGlobalMem = (size_t)8 << 30;
  prop->sharedMemPerBlock = 48 * 1024;
  prop->warpSize = 32;
  prop->maxThreadsPerBlock = 1024;
  prop->maxThreadsDim[0] = prop->maxThreadsDim[1] = 1024;
  prop->maxThreadsDim[2] = 64;
  prop->maxGridSize[0] = 2147483647;
  prop->maxGridSize[1] = prop->maxGridSize[2] = 65535;
  prop->multiProcessorCount = 1;
  return cudaSuccess;
}

cudaError_t cudaDeviceSynchronize() { return cudaSuccess; }

cudaError_t cudaMemGetInfo(size_t* free_bytes, size_t* total) {
  *free_bytes = *total = (size_t)8 << 30;
  return cudaSuccess;
}

// --- memory ----------------------------------------------------------------------------------

cudaError_t cudaMalloc(void** p, size_t size) {
  *p = nullptr;
  const size_t bytes = (size + kAlign - 1) / kAlign * kAlign;
  void* m = aligned_alloc(kAlign, bytes ? bytes : kAlign);
  if (!m) return fail(cudaErrorMemoryAllocation);
  memset(m, 0xFF, bytes ? bytes : kAlign);  // NaN in half, float and double
  std::lock_guard<std::mutex> g(registry().lock);
  registry().device[static_cast<const char*>(m)] = size;
  *p = m;
  return cudaSuccess;
}

cudaError_t cudaFree(void* p) {
  if (!p) return cudaSuccess;
  {
    std::lock_guard<std::mutex> g(registry().lock);
    if (!registry().device.erase(static_cast<const char*>(p))) {
      fault("cudaFree(%p): not the start of a device allocation", p);
      return fail(cudaErrorInvalidValue);
    }
  }
  free(p);
  return cudaSuccess;
}

cudaError_t cudaHostAlloc(void** p, size_t size, unsigned int) {
  *p = aligned_alloc(kAlign, (size + kAlign - 1) / kAlign * kAlign + kAlign);
  if (!*p) return fail(cudaErrorMemoryAllocation);
  std::lock_guard<std::mutex> g(registry().lock);
  registry().pinned.insert(*p);
  return cudaSuccess;
}

cudaError_t cudaMallocHost(void** p, size_t size) { return cudaHostAlloc(p, size, 0); }

cudaError_t cudaFreeHost(void* p) {
  if (!p) return cudaSuccess;
  {
    std::lock_guard<std::mutex> g(registry().lock);
    if (!registry().pinned.erase(p)) {
      fault("cudaFreeHost(%p): not page-locked memory from cudaMallocHost", p);
      return fail(cudaErrorInvalidValue);
    }
  }
  free(p);
  return cudaSuccess;
}

cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, cudaMemcpyKind kind) {
  return check_copy("cudaMemcpy", dst, src, count, kind, nullptr);
}

cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, cudaMemcpyKind kind, cudaStream_t stream) {
  return check_copy("cudaMemcpyAsync", dst, src, count, kind, stream);
}

cudaError_t cudaMemset(void* p, int value, size_t count) { return do_memset("cudaMemset", p, value, count, nullptr); }

cudaError_t cudaMemsetAsync(void* p, int value, size_t count, cudaStream_t stream) {
  return do_memset("cudaMemsetAsync", p, value, count, stream);
}

// --- streams and events ----------------------------------------------------------------------

cudaError_t cudaStreamCreateWithFlags(cudaStream_t* s, unsigned int flags) {
  *s = new CUstream_st{flags};
  std::lock_guard<std::mutex> g(registry().lock);
  registry().streams.insert(*s);
  return cudaSuccess;
}

cudaError_t cudaStreamCreate(cudaStream_t* s) { return cudaStreamCreateWithFlags(s, 0); }

cudaError_t cudaStreamDestroy(cudaStream_t s) {
  {
    std::lock_guard<std::mutex> g(registry().lock);
    if (!s || !registry().streams.erase(s)) {
      fault("cudaStreamDestroy(%p): not a live stream", (void*)s);
      return fail(cudaErrorInvalidResourceHandle);
    }
  }
  delete s;
  return cudaSuccess;
}

cudaError_t cudaStreamSynchronize(cudaStream_t s) {
  if (!stream_valid(s)) {
    fault("cudaStreamSynchronize(%p): not a live stream", (void*)s);
    return fail(cudaErrorInvalidResourceHandle);
  }
  return cudaSuccess;
}

cudaError_t cudaStreamQuery(cudaStream_t s) { return cudaStreamSynchronize(s); }

namespace {
bool event_valid(cudaEvent_t e) {
  std::lock_guard<std::mutex> g(registry().lock);
  return registry().events.count(e) > 0;
}
}  // namespace

cudaError_t cudaStreamWaitEvent(cudaStream_t s, cudaEvent_t e, unsigned int) {
  if (!stream_valid(s) || !event_valid(e)) return fail(cudaErrorInvalidResourceHandle);
  return cudaSuccess;
}

cudaError_t cudaEventCreateWithFlags(cudaEvent_t* e, unsigned int) {
  *e = new CUevent_st;
  std::lock_guard<std::mutex> g(registry().lock);
  registry().events.insert(*e);
  return cudaSuccess;
}

cudaError_t cudaEventCreate(cudaEvent_t* e) { return cudaEventCreateWithFlags(e, 0); }

cudaError_t cudaEventDestroy(cudaEvent_t e) {
  {
    std::lock_guard<std::mutex> g(registry().lock);
    if (!registry().events.erase(e)) return fail(cudaErrorInvalidResourceHandle);
  }
  delete e;
  return cudaSuccess;
}

cudaError_t cudaEventRecord(cudaEvent_t e, cudaStream_t s) {
  if (!event_valid(e) || !stream_valid(s)) return fail(cudaErrorInvalidResourceHandle);
  e->when = std::chrono::steady_clock::now();
  e->recorded = true;
  return cudaSuccess;
}

cudaError_t cudaEventQuery(cudaEvent_t e) { return event_valid(e) ? cudaSuccess : fail(cudaErrorInvalidResourceHandle); }
cudaError_t cudaEventSynchronize(cudaEvent_t e) { return cudaEventQuery(e); }

cudaError_t cudaEventElapsedTime(float* ms, cudaEvent_t start, cudaEvent_t end) {
  if (!event_valid(start) || !event_valid(end)) return fail(cudaErrorInvalidResourceHandle);
  if (!start->recorded || !end->recorded) return fail(cudaErrorInvalidResourceHandle);
  *ms = std::chrono::duration<float, std::milli>(end->when - start->when).count();
  return cudaSuccess;
}
