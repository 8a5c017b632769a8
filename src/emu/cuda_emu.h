// Emulated CUDA: the part of CUDA's execution model the project's kernels use, run on the
// host. An emulated build (-DORVA_CUDA=EMULATE) compiles every CUDA source with the host C++
// compiler and this header included ahead of everything else; the toolkit's own headers
// still declare the runtime and library calls and supply the half type with its host
// arithmetic, while src/emu/ defines the calls the backend makes.
//
// What it models: thread and block indexes (per host thread), block-shared storage,
// __syncthreads (a block's threads become cooperative fibers once one of them reaches a
// barrier), atomics, the float rounding intrinsics, and launches through ORVA_LAUNCH with
// the checks a GPU makes before it runs anything. What it cannot model: warp-level timing,
// memory races between real parallel threads, fused multiply-adds of the device compiler
// (scripts/check_ptx.sh looks for those), and the rounding
// and speed of cuDNN's own algorithms (src/emu/cudnn.cpp answers its calls with reference
// arithmetic).
#pragma once

// Qualifiers become plain host code. A block's threads all run on one host thread, so
// block-shared storage is a per-thread static; it keeps whatever the previous block left,
// as a GPU's shared memory does.
#define __global__
#define __device__
#define __host__
#define __shared__ static thread_local
#define __constant__
#define __launch_bounds__(...)

#include <cuda_fp16.h>
#include <cuda_runtime.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include "emu/emu_control.h"

#define ORVA_EMU_TLS __attribute__((tls_model("initial-exec")))
extern thread_local uint3 threadIdx ORVA_EMU_TLS;
extern thread_local uint3 blockIdx ORVA_EMU_TLS;
extern thread_local dim3 blockDim ORVA_EMU_TLS;
extern thread_local dim3 gridDim ORVA_EMU_TLS;
constexpr int warpSize = 32;

// Waits until every thread of the block has reached it; a barrier reached by only part of
// the block is reported as a fault (a GPU would hang or go wrong silently).
void __syncthreads();
inline void __threadfence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
inline void __threadfence_block() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

// --- arithmetic the device provides as intrinsics ------------------------------------------
// The emulated sources are compiled without contraction, so each of these rounds once.
inline float __fadd_rn(float a, float b) { return a + b; }
inline float __fsub_rn(float a, float b) { return a - b; }
inline float __fmul_rn(float a, float b) { return a * b; }
inline float __fdiv_rn(float a, float b) { return a / b; }
inline float __frcp_rn(float a) { return 1.f / a; }
inline float __fsqrt_rn(float a) { return std::sqrt(a); }
inline float __fmaf_rn(float a, float b, float c) { return std::fmaf(a, b, c); }
inline double __dadd_rn(double a, double b) { return a + b; }
inline double __dmul_rn(double a, double b) { return a * b; }
inline float __fdividef(float a, float b) { return a / b; }
inline float __expf(float a) { return std::exp(a); }
inline float __logf(float a) { return std::log(a); }
inline float __powf(float a, float b) { return std::pow(a, b); }
inline float __saturatef(float a) { return a != a ? 0.f : (a < 0.f ? 0.f : (a > 1.f ? 1.f : a)); }
inline float rsqrtf(float a) { return 1.f / std::sqrt(a); }
inline int __float2int_rn(float a) { return (int)std::nearbyint(a); }
inline int __float2int_rz(float a) { return (int)a; }
inline int __float2int_rd(float a) { return (int)std::floor(a); }
inline int __float2int_ru(float a) { return (int)std::ceil(a); }
inline unsigned __float2uint_rn(float a) { return (unsigned)std::nearbyint(a); }

inline float __int_as_float(int v) { float f; std::memcpy(&f, &v, 4); return f; }
inline int __float_as_int(float f) { int v; std::memcpy(&v, &f, 4); return v; }
inline float __uint_as_float(unsigned v) { float f; std::memcpy(&f, &v, 4); return f; }
inline unsigned __float_as_uint(float f) { unsigned v; std::memcpy(&v, &f, 4); return v; }
inline int __popc(unsigned v) { return __builtin_popcount(v); }
inline int __clz(int v) { return v ? __builtin_clz((unsigned)v) : 32; }
inline int __ffs(int v) { return __builtin_ffs(v); }
template <typename T>
inline T __ldg(const T* p) { return *p; }

// The device's min and max take mixed integer and float arguments.
template <typename A, typename B>
inline typename std::common_type<A, B>::type min(A a, B b) {
  using C = typename std::common_type<A, B>::type;
  return (C)a < (C)b ? (C)a : (C)b;
}
template <typename A, typename B>
inline typename std::common_type<A, B>::type max(A a, B b) {
  using C = typename std::common_type<A, B>::type;
  return (C)a > (C)b ? (C)a : (C)b;
}

// --- atomics -----------------------------------------------------------------------------
template <typename T>
inline T orva_emu_atomic_add(T* p, T v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }
inline int atomicAdd(int* p, int v) { return orva_emu_atomic_add(p, v); }
inline unsigned atomicAdd(unsigned* p, unsigned v) { return orva_emu_atomic_add(p, v); }
inline unsigned long long atomicAdd(unsigned long long* p, unsigned long long v) { return orva_emu_atomic_add(p, v); }
inline int atomicSub(int* p, int v) { return __atomic_fetch_sub(p, v, __ATOMIC_SEQ_CST); }
inline unsigned atomicSub(unsigned* p, unsigned v) { return __atomic_fetch_sub(p, v, __ATOMIC_SEQ_CST); }
template <typename T>
inline T orva_emu_atomic_update(T* p, T (*f)(T, T), T v) {
  T old = __atomic_load_n(p, __ATOMIC_SEQ_CST);
  while (!__atomic_compare_exchange_n(p, &old, f(old, v), false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
  }
  return old;
}
template <typename F, typename I>
inline F orva_emu_atomic_float(F* p, F v, F (*f)(F, F)) {
  I* bits = reinterpret_cast<I*>(p);
  I old = __atomic_load_n(bits, __ATOMIC_SEQ_CST);
  for (;;) {
    F was, now;
    std::memcpy(&was, &old, sizeof(F));
    now = f(was, v);
    I want;
    std::memcpy(&want, &now, sizeof(F));
    if (__atomic_compare_exchange_n(bits, &old, want, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return was;
  }
}
inline float atomicAdd(float* p, float v) {
  return orva_emu_atomic_float<float, uint32_t>(p, v, [](float a, float b) { return a + b; });
}
inline double atomicAdd(double* p, double v) {
  return orva_emu_atomic_float<double, uint64_t>(p, v, [](double a, double b) { return a + b; });
}
inline int atomicMax(int* p, int v) { return orva_emu_atomic_update<int>(p, [](int a, int b) { return a > b ? a : b; }, v); }
inline int atomicMin(int* p, int v) { return orva_emu_atomic_update<int>(p, [](int a, int b) { return a < b ? a : b; }, v); }
inline unsigned atomicMax(unsigned* p, unsigned v) {
  return orva_emu_atomic_update<unsigned>(p, [](unsigned a, unsigned b) { return a > b ? a : b; }, v);
}
inline unsigned atomicMin(unsigned* p, unsigned v) {
  return orva_emu_atomic_update<unsigned>(p, [](unsigned a, unsigned b) { return a < b ? a : b; }, v);
}
inline int atomicExch(int* p, int v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
inline unsigned atomicExch(unsigned* p, unsigned v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
inline float atomicExch(float* p, float v) {
  return orva_emu_atomic_float<float, uint32_t>(p, v, [](float, float b) { return b; });
}
template <typename T>
inline T orva_emu_atomic_cas(T* p, T compare, T v) {
  __atomic_compare_exchange_n(p, &compare, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return compare;
}
inline int atomicCAS(int* p, int compare, int v) { return orva_emu_atomic_cas(p, compare, v); }
inline unsigned atomicCAS(unsigned* p, unsigned compare, unsigned v) { return orva_emu_atomic_cas(p, compare, v); }
inline unsigned long long atomicCAS(unsigned long long* p, unsigned long long compare, unsigned long long v) {
  return orva_emu_atomic_cas(p, compare, v);
}

// --- launches ------------------------------------------------------------------------------
namespace orva_emu {

// Runs body(ctx) once per thread of the grid; refuses (and reports) an invalid shape.
using ThreadBody = void (*)(void* ctx);
void run_grid(const char* kernel, dim3 grid, dim3 block, size_t shmem, cudaStream_t stream, ThreadBody body,
              void* ctx);

template <typename... P>
class Launch {
 public:
  Launch(void (*kernel)(P...), const char* name, dim3 grid, dim3 block, size_t shmem, cudaStream_t stream)
      : _kernel(kernel), _name(name), _grid(grid), _block(block), _shmem(shmem), _stream(stream) {}

  // Arguments convert to the kernel's parameter types once, as a real launch copies them;
  // every thread then gets its own copy.
  template <typename... A>
  void operator()(A&&... args) const {
    static_assert(sizeof...(A) == sizeof...(P), "kernel launched with the wrong number of arguments");
    struct Call {
      void (*kernel)(P...);
      std::tuple<typename std::decay<P>::type...> params;
    } call{_kernel, {std::forward<A>(args)...}};
    run_grid(_name, _grid, _block, _shmem, _stream,
             [](void* c) {
               Call* x = static_cast<Call*>(c);
               std::apply(x->kernel, x->params);
             },
             &call);
  }

 private:
  void (*_kernel)(P...);
  const char* _name;
  dim3 _grid, _block;
  size_t _shmem;
  cudaStream_t _stream;
};

template <typename... P>
Launch<P...> make_launch(void (*kernel)(P...), const char* name, dim3 grid, dim3 block, size_t shmem,
                         cudaStream_t stream) {
  return Launch<P...>(kernel, name, grid, block, shmem, stream);
}

}  // namespace orva_emu

#define ORVA_LAUNCH(kernel, grid, block, shmem, stream) \
  ::orva_emu::make_launch(kernel, #kernel, grid, block, shmem, stream)
