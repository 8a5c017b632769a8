// Emulated CUDA: the launch engine. Blocks run one after another on the calling thread, in
// the chosen order. Within a block the first thread runs as a fiber: if it finishes without
// reaching a barrier the others run as plain calls; if it stops at a barrier, every thread
// of the block becomes a fiber and they advance barrier by barrier together.
#include <ucontext.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "emu/cuda_emu.h"
#include "emu/emu_state.h"

// AddressSanitizer has to be told of every switch between the scheduler's stack and a fiber's.
#if defined(__SANITIZE_ADDRESS__)
#define ORVA_EMU_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORVA_EMU_ASAN 1
#endif
#endif
#if ORVA_EMU_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

thread_local uint3 threadIdx ORVA_EMU_TLS;
thread_local uint3 blockIdx ORVA_EMU_TLS;
thread_local dim3 blockDim ORVA_EMU_TLS;
thread_local dim3 gridDim ORVA_EMU_TLS;

namespace orva_emu {
namespace {

std::atomic<unsigned long> g_faults{0};
std::atomic<FaultHook> g_hook{nullptr};

struct OrderSetting {
  Order order = Order::Forward;
  uint32_t seed = 0;
  OrderSetting() {
    const char* env = getenv("ORVA_EMU_ORDER");
    if (!env) return;
    const std::string s(env);
    if (s.rfind("reverse", 0) == 0) order = Order::Reverse;
    if (s.rfind("shuffle", 0) == 0) order = Order::Shuffle;
    const size_t colon = s.find(':');
    seed = colon == std::string::npos ? (uint32_t)std::random_device()() : (uint32_t)strtoul(s.c_str() + colon + 1, nullptr, 0);
    if (order == Order::Shuffle) fprintf(stderr, "emulated CUDA: shuffled order, ORVA_EMU_ORDER=shuffle:%u\n", seed);
  }
};
OrderSetting& order_setting() {
  static OrderSetting s;
  return s;
}

// The run order of `n` items (blocks, or threads of a block).
class Sequence {
 public:
  Sequence(size_t n, std::mt19937* rng) : _n(n) {
    if (order_setting().order == Order::Shuffle) {
      _perm.resize(n);
      std::iota(_perm.begin(), _perm.end(), size_t{0});
      std::shuffle(_perm.begin(), _perm.end(), *rng);
    }
  }
  size_t operator[](size_t i) const {
    switch (order_setting().order) {
      case Order::Reverse: return _n - 1 - i;
      case Order::Shuffle: return _perm[i];
      default: return i;
    }
  }

 private:
  size_t _n;
  std::vector<size_t> _perm;
};

uint3 unflatten(size_t i, dim3 d) {
  return make_uint3((unsigned)(i % d.x), (unsigned)(i / d.x % d.y), (unsigned)(i / d.x / d.y));
}

// Thrown by a barrier reached outside fiber mode: the block's earlier threads already
// finished without reaching it.
struct BarrierInPlainThread {};

constexpr size_t kFiberStack = 64 * 1024;

struct Fiber {
  enum State { Ready, Waiting, Done };
  ucontext_t ctx;
  std::unique_ptr<char[]> stack;
  uint3 tid;
  State state = Ready;
  void* fake_stack = nullptr;  // the sanitizer's, while the fiber is suspended
};

struct BlockRun {
  ucontext_t scheduler;
  const void* scheduler_stack = nullptr;  // its bounds, for the sanitizer
  size_t scheduler_stack_size = 0;
  Fiber* current = nullptr;
  ThreadBody body = nullptr;
  void* body_ctx = nullptr;
  const char* kernel = nullptr;
};

thread_local BlockRun* t_run = nullptr;

// Leaving the current stack for [bottom, bottom + size); fake = null when it ends for good.
inline void leaving_stack(void** fake, const void* bottom, size_t size) {
#if ORVA_EMU_ASAN
  __sanitizer_start_switch_fiber(fake, bottom, size);
#endif
}
// Arrived on a stack; learns the bounds of the one left.
inline void arrived_on_stack(void* fake, const void** bottom, size_t* size) {
#if ORVA_EMU_ASAN
  __sanitizer_finish_switch_fiber(fake, bottom, size);
#endif
}
thread_local std::vector<std::unique_ptr<Fiber>> t_fibers;

void fiber_main() {
  BlockRun* r = t_run;
  arrived_on_stack(nullptr, &r->scheduler_stack, &r->scheduler_stack_size);
  try {
    r->body(r->body_ctx);
  } catch (...) {
    fault("kernel %s: exception escaped thread (%u,%u,%u)", r->kernel, threadIdx.x, threadIdx.y, threadIdx.z);
  }
  r->current->state = Fiber::Done;
  leaving_stack(nullptr, r->scheduler_stack, r->scheduler_stack_size);
  // returning resumes the scheduler through uc_link
}

Fiber* start_fiber(size_t slot, uint3 tid) {
  while (t_fibers.size() <= slot) {
    auto f = std::make_unique<Fiber>();
    f->stack.reset(new char[kFiberStack]);
    t_fibers.push_back(std::move(f));
  }
  Fiber* f = t_fibers[slot].get();
  getcontext(&f->ctx);
  f->ctx.uc_stack.ss_sp = f->stack.get();
  f->ctx.uc_stack.ss_size = kFiberStack;
  f->ctx.uc_link = &t_run->scheduler;
  makecontext(&f->ctx, fiber_main, 0);
  f->tid = tid;
  f->state = Fiber::Ready;
  return f;
}

void resume(Fiber* f) {
  threadIdx = f->tid;
  t_run->current = f;
  void* fake = nullptr;
  leaving_stack(&fake, f->stack.get(), kFiberStack);
  swapcontext(&t_run->scheduler, &f->ctx);
  arrived_on_stack(fake, nullptr, nullptr);
  t_run->current = nullptr;
}

std::string block_text() {
  char b[96];
  snprintf(b, sizeof b, "block (%u,%u,%u) of %u threads", blockIdx.x, blockIdx.y, blockIdx.z,
           blockDim.x * blockDim.y * blockDim.z);
  return b;
}

void run_block(BlockRun& run, size_t nthreads, std::mt19937& rng) {
  const Sequence order(nthreads, &rng);
  // The first thread probes whether the kernel waits at barriers at all.
  Fiber* first = start_fiber(0, unflatten(order[0], blockDim));
  resume(first);
  if (first->state == Fiber::Done) {
    for (size_t i = 1; i < nthreads; ++i) {
      threadIdx = unflatten(order[i], blockDim);
      try {
        run.body(run.body_ctx);
      } catch (const BarrierInPlainThread&) {
        fault("kernel %s: __syncthreads reached by thread (%u,%u,%u) of %s after thread (%u,%u,%u) finished "
              "without it",
              run.kernel, threadIdx.x, threadIdx.y, threadIdx.z, block_text().c_str(), first->tid.x, first->tid.y,
              first->tid.z);
        return;
      } catch (...) {
        fault("kernel %s: exception escaped thread (%u,%u,%u)", run.kernel, threadIdx.x, threadIdx.y, threadIdx.z);
        return;
      }
    }
    return;
  }
  std::vector<Fiber*> fibers(nthreads);
  fibers[0] = first;
  for (size_t i = 1; i < nthreads; ++i) fibers[i] = start_fiber(i, unflatten(order[i], blockDim));
  for (;;) {
    for (Fiber* f : fibers)
      if (f->state == Fiber::Ready) resume(f);
    size_t waiting = 0;
    for (Fiber* f : fibers) waiting += f->state == Fiber::Waiting;
    if (waiting == 0) return;
    if (waiting < nthreads) {
      fault("kernel %s: __syncthreads reached by %zu of the %zu threads of %s; the others finished", run.kernel,
            waiting, nthreads, block_text().c_str());
      return;
    }
    if (order_setting().order == Order::Shuffle) std::shuffle(fibers.begin(), fibers.end(), rng);
    for (Fiber* f : fibers) f->state = Fiber::Ready;
  }
}

bool valid_shape(const char* kernel, dim3 grid, dim3 block, size_t shmem) {
  const unsigned long long threads = (unsigned long long)block.x * block.y * block.z;
  const char* why = nullptr;
  if (!grid.x || !grid.y || !grid.z || !block.x || !block.y || !block.z)
    why = "a zero dimension";
  else if (block.x > 1024 || block.y > 1024 || block.z > 64 || threads > 1024)
    why = "more than 1024 threads per block (x, y up to 1024, z up to 64)";
  else if (grid.x > 2147483647u || grid.y > 65535 || grid.z > 65535)
    why = "a grid beyond 2^31-1 x 65535 x 65535";
  else if (shmem > 48 * 1024)
    why = "more than 48 KiB of dynamic shared memory";
  if (!why) return true;
  fault("kernel %s refused: grid (%u,%u,%u), block (%u,%u,%u), %zu bytes shared: %s", kernel, grid.x, grid.y, grid.z,
        block.x, block.y, block.z, shmem, why);
  return false;
}

}  // namespace

void set_order(Order order) { order_setting().order = order; }
void set_order(Order order, uint32_t seed) {
  order_setting().order = order;
  order_setting().seed = seed;
}
Order order() { return order_setting().order; }

FaultHook set_fault_hook(FaultHook hook) { return g_hook.exchange(hook); }
unsigned long fault_count() { return g_faults; }

void fault(const char* format, ...) {
  char text[512];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  ++g_faults;
  fprintf(stderr, "ERROR: emulated CUDA: %s\n", text);
  if (FaultHook h = g_hook) h(text);
}

void run_grid(const char* kernel, dim3 grid, dim3 block, size_t shmem, cudaStream_t stream, ThreadBody body,
              void* ctx) {
  if (!valid_shape(kernel, grid, block, shmem)) {
    set_last_error(cudaErrorInvalidConfiguration);
    return;
  }
  if (!stream_valid(stream)) {
    fault("kernel %s launched on a stream that does not exist", kernel);
    set_last_error(cudaErrorInvalidResourceHandle);
    return;
  }
  if (t_run) {
    fault("kernel %s launched from inside a kernel", kernel);
    set_last_error(cudaErrorLaunchFailure);
    return;
  }
  BlockRun run;
  run.body = body;
  run.body_ctx = ctx;
  run.kernel = kernel;
  t_run = &run;
  gridDim = grid;
  blockDim = block;
  std::mt19937 rng(order_setting().seed ^ (uint32_t)std::hash<std::string>()(kernel));
  order_setting().seed += 0x9E3779B9u;  // each launch of a shuffled run gets its own order
  const size_t nblocks = (size_t)grid.x * grid.y * grid.z;
  const size_t nthreads = (size_t)block.x * block.y * block.z;
  const Sequence blocks(nblocks, &rng);
  for (size_t i = 0; i < nblocks; ++i) {
    blockIdx = unflatten(blocks[i], grid);
    run_block(run, nthreads, rng);
  }
  t_run = nullptr;
}

}  // namespace orva_emu

void __syncthreads() {
  using namespace orva_emu;
  BlockRun* r = t_run;
  if (!r) {
    fault("__syncthreads called outside a kernel");
    return;
  }
  if (!r->current) throw BarrierInPlainThread{};
  Fiber* f = r->current;
  f->state = Fiber::Waiting;
  leaving_stack(&f->fake_stack, r->scheduler_stack, r->scheduler_stack_size);
  swapcontext(&f->ctx, &r->scheduler);
  arrived_on_stack(f->fake_stack, &r->scheduler_stack, &r->scheduler_stack_size);
  threadIdx = f->tid;
}
