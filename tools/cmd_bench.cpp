// orva bench: per-layer times and frames per second of a model on one backend, and on the
// host how fast each layer runs against what the machine allows.
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "cli.h"

using namespace orvacli;

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Twelve independent multiply-add chains of one vector each: enough in flight to fill every
// FMA pipe of one core, so the rate is the core's float peak (a multiply-add counts two). The
// chains start from different values: chains that start alike are one chain to the compiler,
// which then times two latency-bound chains and reports six times the rate.
#define ORVA_FMA_CHAINS(V, LANES, FMA)                                                        \
  V a0 = c * 1, a1 = c * 2, a2 = c * 3, a3 = c * 4, a4 = c * 5, a5 = c * 6, a6 = c * 7, a7 = c * 8; \
  V a8 = c * 9, a9 = c * 10, a10 = c * 11, a11 = c * 12;                                      \
  const auto t0 = Clock::now();                                                               \
  for (long r = 0; r < rounds; ++r) {                                                         \
    a0 = FMA(a0, b, c), a1 = FMA(a1, b, c), a2 = FMA(a2, b, c), a3 = FMA(a3, b, c);           \
    a4 = FMA(a4, b, c), a5 = FMA(a5, b, c), a6 = FMA(a6, b, c), a7 = FMA(a7, b, c);           \
    a8 = FMA(a8, b, c), a9 = FMA(a9, b, c), a10 = FMA(a10, b, c), a11 = FMA(a11, b, c);       \
  }                                                                                           \
  const double s = seconds_since(t0);                                                         \
  V sum = a0 + a1 + a2 + a3 + a4 + a5 + a6 + a7 + a8 + a9 + a10 + a11;                        \
  volatile float sink = 0;                                                                    \
  for (int k = 0; k < LANES; ++k) sink = sink + sum[k];                                       \
  return rounds * 12.0 * LANES * 2 / s;

typedef float f4 __attribute__((vector_size(16)));
inline f4 mul_add(f4 x, f4 y, f4 z) { return x * y + z; }
double fma_chains_generic(long rounds) {
  const f4 b = {1.0000001f, 1.0000001f, 1.0000001f, 1.0000001f}, c = {1e-7f, 1e-7f, 1e-7f, 1e-7f};
  ORVA_FMA_CHAINS(f4, 4, mul_add)
}
#if defined(__x86_64__)
typedef float f8 __attribute__((vector_size(32)));
__attribute__((target("avx2,fma"))) inline f8 fma8(f8 x, f8 y, f8 z) { return __builtin_ia32_vfmaddps256(x, y, z); }
__attribute__((target("avx2,fma"))) double fma_chains_x86(long rounds) {
  f8 b, c;
  for (int k = 0; k < 8; ++k) b[k] = 1.0000001f, c[k] = 1e-7f;
  ORVA_FMA_CHAINS(f8, 8, fma8)
}
#endif

#if defined(__x86_64__)
// Twelve independent chains of 512-bit 8-bit dot products (vpdpbusd: 64 multiply-adds each,
// counted as 128 operations), the 8-bit path's peak on one core.
__attribute__((target("avx512f,avx512vnni"))) double dot_chains(long rounds) {
  const __m512i b = _mm512_set1_epi32(0x01010101), c = _mm512_set1_epi32(0x01FF01FF);
  __m512i a[12];
  for (int k = 0; k < 12; ++k) a[k] = _mm512_set1_epi32(k);  // distinct, as above
  const auto t0 = Clock::now();
  for (long r = 0; r < rounds; ++r)
#pragma GCC unroll 12
    for (__m512i& v : a) v = _mm512_dpbusd_epi32(v, b, c);
  const double s = seconds_since(t0);
  __m512i sum = a[0];
  for (int k = 1; k < 12; ++k) sum = _mm512_add_epi32(sum, a[k]);
  alignas(64) int lanes[16];
  _mm512_store_si512(lanes, sum);
  volatile int sink = 0;
  for (int k = 0; k < 16; ++k) sink = sink + lanes[k];
  return rounds * 12.0 * 64 * 2 / s;
}
#endif

// 8-bit operations per second of one core with the dot-product instructions, 0 without them.
double core_dot_peak() {
  double best = 0;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512vnni"))
    for (int run = 0; run < 20; ++run) best = std::max(best, dot_chains(1000000));
#endif
  return best;
}

// Float operations per second of one core, the best of many short runs (on a loaded machine
// some of them run undisturbed).
double core_peak() {
  double best = 0;
  for (int run = 0; run < 20; ++run) {
#if defined(__x86_64__)
    best = std::max(best, __builtin_cpu_supports("fma") ? fma_chains_x86(1000000) : fma_chains_generic(1000000));
#else
    best = std::max(best, fma_chains_generic(1000000));
#endif
  }
  return best;
}

// Bytes per second of a large memcpy (read and write counted), the best of a few.
double memory_bandwidth() {
  const size_t n = 64 << 20;
  std::vector<char> a(n, 1), b(n, 0);
  double best = 0;
  for (int run = 0; run < 4; ++run) {
    const auto t0 = Clock::now();
    memcpy(b.data(), a.data(), n);
    best = std::max(best, 2.0 * n / seconds_since(t0));
  }
  return best;
}

}  // namespace

int cmd_bench(int argc, char** argv) {
  CLI::App app("Times every layer and whole passes on random input.", "orva bench");
  ModelOptions o;
  addModelOptions(app, o);
  std::vector<int> batches = {1, 4};
  int iterations = 10;
  app.add_option("--batches", batches, "batch sizes to time")->delimiter(',')->capture_default_str()
      ->check(CLI::Range(1, 64));
  app.add_option("-n,--iterations", iterations, "timed passes per batch size (after one warm-up)")
      ->capture_default_str()->check(CLI::Range(1, 100000));
  int status;
  if (parseArgs(app, argc, argv, status)) return status;

  const int max_batch = *std::max_element(batches.begin(), batches.end());
  ORVA::Network net(ORVA::TEST, max_batch, o.gpu);
  try {
    loadNetwork(net, o);
  } catch (const std::exception& e) {
    return fail("bench", e.what());
  }
  std::vector<float> input((size_t)max_batch * net.getSiamese() * net.getInputs());
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> u(0.f, 1.f);
  for (float& v : input) v = u(rng);

  printf("model %s on %s, %d x %d x %d input, %d timed passes\n", o.model.c_str(), handle_name(net.getHandle()),
         net.iW, net.iH, net.iC, iterations);
  // The floor of a layer on the host: its operations at every core's float peak, or its
  // bytes (half input, output and weights) at memory bandwidth, whichever takes longer.
  const bool host = std::string(handle_name(net.getHandle())) == "host";
  double peak = 0, bandwidth = 0;
  const int cores = tbb::this_task_arena::max_concurrency();
  if (host) {
    peak = core_peak() * cores;
    bandwidth = memory_bandwidth();
    printf("floor: %.1f GFLOP/s (%d x %.1f, float multiply-adds) or %.1f GB/s (memcpy), whichever is slower\n",
           peak * 1e-9, cores, peak * 1e-9 / cores, bandwidth * 1e-9);
    const double dot_peak = o.quant ? core_dot_peak() : 0.0;
    if (dot_peak > 0)
      printf("8-bit layers: %.1f GOP/s (%d x %.1f, 512-bit dot products; the floor column stays the float one)\n",
             dot_peak * cores * 1e-9, cores, dot_peak * 1e-9);
  }
  std::vector<std::vector<double>> layer_ms;
  std::vector<double> fps;
  for (int b : batches) {
    net.predict(input.data(), b);  // warm-up
    std::vector<double> sum(net.getLayerCount(), 0.0);
    net.setLayerTimer([&](int i, double ms) { sum[i] += ms / iterations; });
    for (int it = 0; it < iterations; ++it) net.predict(input.data(), b);
    net.setLayerTimer(nullptr);
    layer_ms.push_back(sum);
    const auto t0 = Clock::now();
    for (int it = 0; it < iterations; ++it) net.predict(input.data(), b);
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    fps.push_back(b * iterations / s);
  }
  printf("\n  #  layer        output             ");
  for (int b : batches) printf(host ? "  batch %-2d ms GFLOP/s floor" : "  batch %-2d ms", b);
  printf("\n");
  std::vector<double> floor_ms(batches.size(), 0.0);
  for (int i = 0; i < net.getLayerCount(); ++i) {
    const ORVA::LayerInfo l = net.layerInfo(i);
    printf("%3d  %-11s %4d x%4d x%5d", i, l.name, l.out_w, l.out_h, l.out_c);
    for (size_t k = 0; k < batches.size(); ++k) {
      const double ms = layer_ms[k][i];
      printf("  %11.3f", ms);
      if (!host) continue;
      const int b = batches[k];
      const double flops = (double)l.flops * b;
      const double bytes = 2.0 * ((double)b * ((double)l.in_w * l.in_h * l.in_c + (double)l.out_w * l.out_h * l.out_c) +
                                  (double)l.params);
      const double fl = 1e3 * std::max(flops / peak, bytes / bandwidth);
      floor_ms[k] += fl;
      printf(" %7.1f %4.0f%%", ms > 0 ? flops / ms * 1e-6 : 0.0, ms > 0 ? 100.0 * fl / ms : 0.0);
    }
    printf("\n");
  }
  printf("%-35s", "     total of the layers");
  for (size_t k = 0; k < layer_ms.size(); ++k) {
    double t = 0;
    for (double v : layer_ms[k]) t += v;
    printf("  %11.3f", t);
    if (host) printf(" %7s %4.0f%%", "", t > 0 ? 100.0 * floor_ms[k] / t : 0.0);
  }
  printf("\n\n");
  for (size_t k = 0; k < batches.size(); ++k)
    printf("batch %d: %.1f frames/s (%.2f ms a pass, input and output transfers included)\n", batches[k], fps[k],
           1000.0 * batches[k] / fps[k]);
  return kOk;
}
