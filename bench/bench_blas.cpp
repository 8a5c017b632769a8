// Host-backend tensor primitives. The matrix product on half data runs beside OpenBLAS's own
// single-precision product on the same shapes (the peer), and a summary prints half/float
// throughput per shape; the element-wise kernels report bytes read and written per second
// beside a plain memcpy of the same traffic.
//
//   build-blas/bench/bench_blas --benchmark_filter=Gemm --benchmark_repetitions=5
//   (with repetitions the summary uses the median of each shape)
#include <benchmark/benchmark.h>
#include <cblas.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "orva/blas.h"
#include "orva/cuda.h"

namespace {

// Convolution-shaped products: M filters, N output positions, K = 9 x input channels.
struct GemmShape {
  int M, N, K;
};
const GemmShape kShapes[] = {{16, 43264, 27},  {16, 10816, 144}, {32, 43264, 144}, {64, 10816, 288},
                             {128, 2704, 576}, {256, 676, 1152}, {512, 169, 2304}, {512, 169, 4608}};

// A host context and its tensors, released together.
class HostContext {
 public:
  HostContext() { create_handle(&_ctx, -1); }
  ~HostContext() {
    for (void* p : _tensors) cuda_free(&_ctx, p);
    destroy_handle(&_ctx);
  }
  void* handle() { return &_ctx; }
  // n halves of uniform values in [lo, hi].
  Ftype* halves(size_t n, float lo, float hi) {
    std::vector<float> f = floats(n, lo, hi);
    std::vector<Ftype> h(n);
    float2half_cpu(f.data(), h.data(), n);
    auto* p = static_cast<Ftype*>(cuda_malloc(&_ctx, n * sizeof(Ftype)));
    cuda_push(&_ctx, p, h.data(), n * sizeof(Ftype));
    _tensors.push_back(p);
    return p;
  }
  std::vector<float> floats(size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (auto& x : v) x = d(_gen);
    return v;
  }

 private:
  CudaHandle _ctx{};
  std::vector<void*> _tensors;
  std::mt19937 _gen{12345};
};

void set_gemm_counters(benchmark::State& state, const GemmShape& s) {
  const double flops = 2.0 * s.M * s.N * s.K;
  state.counters["GFLOP/s"] = benchmark::Counter(flops * state.iterations() / 1e9, benchmark::Counter::kIsRate);
  state.SetLabel(std::to_string(s.M) + "x" + std::to_string(s.N) + "x" + std::to_string(s.K));
}

void BM_GemmHalfHost(benchmark::State& state) {
  const GemmShape s = kShapes[state.range(0)];
  HostContext ctx;
  Ftype* A = ctx.halves((size_t)s.M * s.K, -1, 1);
  Ftype* B = ctx.halves((size_t)s.K * s.N, -1, 1);
  Ftype* C = ctx.halves((size_t)s.M * s.N, -1, 1);
  for (auto _ : state) {
    blas_gemm(ctx.handle(), 0, 0, s.M, s.N, s.K, 1.f, A, s.K, B, s.N, 0.f, C, s.N);
    benchmark::ClobberMemory();
  }
  set_gemm_counters(state, s);
}

void BM_GemmFloatOpenBLAS(benchmark::State& state) {
  const GemmShape s = kShapes[state.range(0)];
  HostContext ctx;
  std::vector<float> A = ctx.floats((size_t)s.M * s.K, -1, 1), B = ctx.floats((size_t)s.K * s.N, -1, 1),
                     C((size_t)s.M * s.N);
  for (auto _ : state) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.M, s.N, s.K, 1.f, A.data(), s.K, B.data(), s.N, 0.f,
                C.data(), s.N);
    benchmark::ClobberMemory();
  }
  set_gemm_counters(state, s);
}

// Registered shape by shape, half then float, so that both see the same load of the machine.
void register_gemm_pairs() {
  const int count = sizeof(kShapes) / sizeof(kShapes[0]);
  for (int i = 0; i < count; ++i) {
    benchmark::RegisterBenchmark("BM_GemmHalfHost", BM_GemmHalfHost)->Arg(i)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("BM_GemmFloatOpenBLAS", BM_GemmFloatOpenBLAS)
        ->Arg(i)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
}

// --- element-wise: bytes moved per element as the kernels read and write them ------------

constexpr int kBatch = 2, kFilters = 64, kSpatial = 104 * 104;
constexpr size_t kElements = (size_t)kBatch * kFilters * kSpatial;

void set_traffic(benchmark::State& state, double bytes_per_call) {
  state.counters["GB/s"] = benchmark::Counter(bytes_per_call * state.iterations() / 1e9, benchmark::Counter::kIsRate);
}

void BM_Scale(benchmark::State& state) {
  HostContext ctx;
  Ftype* x = ctx.halves(kElements, -1, 1);
  for (auto _ : state) blas_scale(ctx.handle(), (int)kElements, 1.f, x);  // 1 keeps values steady
  set_traffic(state, 4.0 * kElements);
}

void BM_ScaleAdd(benchmark::State& state) {
  HostContext ctx;
  Ftype* x = ctx.halves(kElements, -1, 1);
  for (auto _ : state) blas_scale_add(ctx.handle(), (int)kElements, 1.f, 0.f, x);
  set_traffic(state, 4.0 * kElements);
}

void BM_Axpy(benchmark::State& state) {
  HostContext ctx;
  Ftype *x = ctx.halves(kElements, -1, 1), *y = ctx.halves(kElements, -1, 1);
  for (auto _ : state) blas_axpy(ctx.handle(), (int)kElements, 0.f, x, y);
  set_traffic(state, 6.0 * kElements);
}

void BM_AddBias(benchmark::State& state) {
  HostContext ctx;
  Ftype *x = ctx.halves(kElements, -1, 1), *bias = ctx.halves(kFilters, 0, 0);
  for (auto _ : state) blas_add_bias(ctx.handle(), x, bias, kBatch, kFilters, kSpatial);
  set_traffic(state, 4.0 * kElements);
}

void BM_Normalize(benchmark::State& state) {
  HostContext ctx;
  Ftype *x = ctx.halves(kElements, -1, 1), *mean = ctx.halves(kFilters, 0, 0), *var = ctx.halves(kFilters, 1, 1);
  for (auto _ : state) blas_normalize(ctx.handle(), x, mean, var, kBatch, kFilters, kSpatial);
  set_traffic(state, 4.0 * kElements);
}

// The bandwidth peer: the same 4 bytes per element as a read-modify-write kernel.
void BM_MemcpyPeer(benchmark::State& state) {
  std::vector<Ftype> src(kElements), dst(kElements);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), kElements * sizeof(Ftype));
    benchmark::ClobberMemory();
  }
  set_traffic(state, 4.0 * kElements);
}

BENCHMARK(BM_Scale)->UseRealTime();
BENCHMARK(BM_ScaleAdd)->UseRealTime();
BENCHMARK(BM_Axpy)->UseRealTime();
BENCHMARK(BM_AddBias)->UseRealTime();
BENCHMARK(BM_Normalize)->UseRealTime();
BENCHMARK(BM_MemcpyPeer)->UseRealTime();

// Console output plus, at the end, the half product's throughput as a share of the peer's.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      const std::string name = r.benchmark_name();
      auto it = r.counters.find("GFLOP/s");
      // With --benchmark_repetitions the median stands for the shape; otherwise the one run.
      const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
      if (it == r.counters.end() || !(median || (r.run_type == Run::RT_Iteration && r.repetitions <= 1))) continue;
      const bool half = name.find("GemmHalfHost") != std::string::npos;
      (half ? _half : _float)[r.report_label] = it->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    if (_half.empty()) return;
    printf("\nhost blas_gemm (half) vs OpenBLAS cblas_sgemm (float), same shapes (M x N x K):\n");
    for (const GemmShape& s : kShapes) {
      const std::string label = std::to_string(s.M) + "x" + std::to_string(s.N) + "x" + std::to_string(s.K);
      if (!_half.count(label) || !_float.count(label)) continue;
      printf("  %-16s half %7.1f GFLOP/s  float %7.1f GFLOP/s  ratio %5.2f\n", label.c_str(), _half[label],
             _float[label], _half[label] / _float[label]);
    }
  }

 private:
  std::map<std::string, double> _half, _float;
};

}  // namespace

int main(int argc, char** argv) {
  register_gemm_pairs();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
