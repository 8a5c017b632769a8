// Host twins of the data-moving layers against a plain copy of the same bytes (the larger of
// the layer's input and output), and inference of a tiny-YOLO-style trunk at 416 x 416.
//   Time: the layer as the network runs it (TBB threads, wall clock).
//   vs_copy = copy time / layer time, both on one thread and in thread CPU time, so the ratio
//   holds on a busy machine: 1 means the layer moves its bytes at memcpy speed.
#include <benchmark/benchmark.h>
#include <tbb/task_arena.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kernels/conv_int8_host.h"
#include "orva/conv.h"
#include "orva/cuda.h"
#include "orva/float16.h"
#include "orva/orva.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

std::unique_ptr<ORVA::Network> build(const std::string& text, int batch) {
  const std::string path = "/tmp/orva_bench_layers.cfg";
  FILE* f = fopen(path.c_str(), "w");
  fputs(text.c_str(), f);
  fclose(f);
  auto net = std::make_unique<ORVA::Network>(ORVA::TEST, batch, -1);
  net->load(path.c_str(), nullptr);
  return net;
}

std::string input_section(int w, int h, int c) {
  return "[network]\nwidth=" + std::to_string(w) + "\nheight=" + std::to_string(h) + "\nchannels=" +
         std::to_string(c) + "\n";
}

double thread_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

// Least thread CPU seconds of one call of fn over `reps` calls, all on this thread.
template <typename Fn>
double cpu_seconds_per_call(Fn fn, int reps) {
  double best = 1e30;
  tbb::task_arena one(1);
  one.execute([&] {
    fn();
    for (int i = 0; i < reps; ++i) {
      const double t0 = thread_seconds();
      fn();
      best = std::min(best, thread_seconds() - t0);
    }
  });
  return best;
}

// The last layer of the description, run alone on what the layers before it left behind.
void run_layer(benchmark::State& state, const std::string& text) {
  auto net = build(text, 1);
  std::vector<float> input((size_t)net->getInputs(), 0.25f);
  for (size_t i = 0; i < input.size(); ++i) input[i] = (float)(i % 251) / 251.f;
  net->predict(input.data(), 1);
  const int li = net->getLayerCount() - 1;
  ORVA::Layer* l = net->getLayer(li);
  ORVA::NetworkParams params;
  params.input = li ? net->getLayer(li - 1)->_output : net->getInput();
  params.batch = 1;
  params.net = net.get();
  const size_t bytes = 2 * (size_t)std::max(l->_inputs, l->_outputs);
  std::vector<char> from(bytes, 1), to(bytes);
  const double copy = cpu_seconds_per_call([&] { memcpy(to.data(), from.data(), bytes); benchmark::DoNotOptimize(to.data()); }, 30);
  const double layer = cpu_seconds_per_call([&] { l->forward(params); }, 30);
  for (auto _ : state) l->forward(params);
  state.SetBytesProcessed((int64_t)state.iterations() * bytes);
  state.counters["vs_copy"] = copy / layer;
  auto shape = [](int w, int h, int c) { return std::to_string(w) + "x" + std::to_string(h) + "x" + std::to_string(c); };
  // A route has sources rather than one input shape.
  state.SetLabel((l->_in_w ? shape(l->_in_w, l->_in_h, l->_in_c) : std::string("sources")) + " -> " +
                 shape(l->_out_w, l->_out_h, l->_out_c));
}

void BM_Maxpool2s2(benchmark::State& s) { run_layer(s, input_section(416, 416, 16) + "[maxpool]\nsize=2\nstride=2\n"); }
void BM_Maxpool2s1(benchmark::State& s) { run_layer(s, input_section(13, 13, 512) + "[maxpool]\nsize=2\nstride=1\n"); }
void BM_Maxpool3s1(benchmark::State& s) { run_layer(s, input_section(52, 52, 128) + "[maxpool]\nsize=3\nstride=1\n"); }
void BM_Avgpool2s2(benchmark::State& s) { run_layer(s, input_section(208, 208, 32) + "[avgpool]\nsize=2\nstride=2\n"); }
void BM_Route(benchmark::State& s) {
  run_layer(s, input_section(52, 52, 128) + "[upsample]\nstride=1\n[upsample]\nstride=1\n[route]\nlayers=-1,-2\n");
}
void BM_Shortcut(benchmark::State& s) { run_layer(s, input_section(104, 104, 128) + "[upsample]\nstride=1\n[shortcut]\nfrom=-2\n"); }
void BM_Upsample(benchmark::State& s) { run_layer(s, input_section(26, 26, 256) + "[upsample]\n"); }
void BM_Reorg(benchmark::State& s) { run_layer(s, input_section(52, 52, 128) + "[reorg]\n"); }
BENCHMARK(BM_Maxpool2s2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Maxpool2s1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Maxpool3s1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Avgpool2s2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Route)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Shortcut)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Upsample)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Reorg)->Unit(benchmark::kMicrosecond);

#if defined(__x86_64__)
// The half conversions that bound the pools and the shortcut on the host, against memcpy, over
// 64 K halves (in L2), one thread: items/s are halves per second.
constexpr int kHalves = 1 << 16;

__attribute__((target("avx,f16c"))) void widen(const uint16_t* h, float* f) {
  for (int i = 0; i < kHalves; i += 8)
    _mm256_storeu_ps(f + i, _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h + i))));
}
__attribute__((target("avx,f16c"))) void narrow(const float* f, uint16_t* h) {
  for (int i = 0; i < kHalves; i += 8)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(h + i), _mm256_cvtps_ph(_mm256_loadu_ps(f + i), _MM_FROUND_TO_NEAREST_INT));
}

void BM_HalfWiden(benchmark::State& state) {
  std::vector<uint16_t> h(kHalves, 0x3c00);
  std::vector<float> f(kHalves);
  for (auto _ : state) {
    widen(h.data(), f.data());
    benchmark::DoNotOptimize(f.data());
  }
  state.SetItemsProcessed((int64_t)state.iterations() * kHalves);
}
void BM_HalfNarrow(benchmark::State& state) {
  std::vector<float> f(kHalves, 1.f);
  std::vector<uint16_t> h(kHalves);
  for (auto _ : state) {
    narrow(f.data(), h.data());
    benchmark::DoNotOptimize(h.data());
  }
  state.SetItemsProcessed((int64_t)state.iterations() * kHalves);
}
void BM_HalfCopy(benchmark::State& state) {
  std::vector<uint16_t> a(kHalves, 1), b(kHalves);
  for (auto _ : state) {
    memcpy(b.data(), a.data(), kHalves * sizeof(uint16_t));
    benchmark::DoNotOptimize(b.data());
  }
  state.SetItemsProcessed((int64_t)state.iterations() * kHalves);
}
BENCHMARK(BM_HalfWiden);
BENCHMARK(BM_HalfNarrow);
BENCHMARK(BM_HalfCopy);
#endif

// Convolutions with batch normalisation and leaky, six max-pools (the last 2 x 2 / 1).
std::string tiny_yolo_trunk() {
  std::string s = input_section(416, 416, 3);
  const int filters[] = {16, 32, 64, 128, 256, 512};
  for (int i = 0; i < 6; ++i) {
    s += "[convolution]\nbatch_normalize=1\nfilters=" + std::to_string(filters[i]) + "\nsize=3\nactivation=leaky\n";
    s += i < 5 ? "[maxpool]\nsize=2\nstride=2\n" : "[maxpool]\nsize=2\nstride=1\n";
  }
  return s + "[convolution]\nbatch_normalize=1\nfilters=1024\nsize=3\nactivation=leaky\n";
}

void BM_TinyYoloTrunk(benchmark::State& state) {
  const int batch = (int)state.range(0);
  static std::unique_ptr<ORVA::Network> nets[5];
  if (!nets[batch]) nets[batch] = build(tiny_yolo_trunk(), batch);
  ORVA::Network& net = *nets[batch];
  std::vector<float> input((size_t)batch * 416 * 416 * 3, 0.5f);
  net.predict(input.data(), batch);
  size_t flops = 0;
  for (int i = 0; i < net.getLayerCount(); ++i) flops += net.getLayer(i)->_flops;
  for (auto _ : state) benchmark::DoNotOptimize(net.predict(input.data(), batch));
  state.counters["GFLOP/s"] =
      benchmark::Counter((double)flops * batch * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["frames/s"] = benchmark::Counter((double)batch, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_TinyYoloTrunk)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace

// The 8-bit convolution pass alone (quantising the input, the integer sums, scale and bias
// to half) on layers of the bench networks, in GOP/s of one thread's CPU time (a multiply-add
// counts two): the rate to hold against `orva bench --int8`'s dot-product peak. The second
// argument 1 times the portable integer loops instead (the path of processors without VNNI).
struct Int8Shape {
  int c, h, w, filters, size, stride;
};
const Int8Shape kInt8Shapes[] = {
    {512, 13, 13, 1024, 3, 1}, {64, 52, 52, 128, 3, 1}, {16, 416, 416, 32, 3, 2},
    {16, 208, 208, 32, 3, 1},  {1024, 13, 13, 256, 1, 1},
};

void BM_ConvInt8(benchmark::State& state) {
  const Int8Shape& k = kInt8Shapes[state.range(0)];
  const int pad = k.size / 2, oh = (k.h + 2 * pad - k.size) / k.stride + 1, ow = (k.w + 2 * pad - k.size) / k.stride + 1;
  const ConvShape shape = {1, k.c, k.h, k.w, k.filters, oh, ow, k.size, k.stride, pad, 1, 1, false, -1, true};
  CudaHandle ctx{};
  create_handle(&ctx, -1);
  void* h = &ctx;
  const size_t inputs = (size_t)k.c * k.h * k.w, weights = (size_t)k.filters * k.c * k.size * k.size;
  std::vector<Ftype> x(inputs), w(weights), bias(k.filters);
  for (size_t i = 0; i < x.size(); ++i) x[i] = float2half_cpu((float)(i % 251) / 125.f - 1.f);
  for (size_t i = 0; i < w.size(); ++i) w[i] = float2half_cpu((float)(i % 127) / 1270.f - 0.05f);
  for (Ftype& v : bias) v = float2half_cpu(0.1f);
  Ftype* dx = static_cast<Ftype*>(cuda_malloc(h, inputs * sizeof(Ftype)));
  Ftype* dw = static_cast<Ftype*>(cuda_malloc(h, weights * sizeof(Ftype)));
  Ftype* db = static_cast<Ftype*>(cuda_malloc(h, k.filters * sizeof(Ftype)));
  Ftype* out = static_cast<Ftype*>(cuda_malloc(h, (size_t)k.filters * oh * ow * sizeof(Ftype)));
  signed char* qw = static_cast<signed char*>(cuda_malloc(h, weights));
  char* qin = static_cast<char*>(cuda_malloc(h, 2 * inputs));
  memcpy(dx, x.data(), inputs * sizeof(Ftype));
  memcpy(dw, w.data(), weights * sizeof(Ftype));
  memcpy(db, bias.data(), k.filters * sizeof(Ftype));
  ConvPlan* plan = conv_plan_create(h, shape);
  bool is_unsigned = false;
  const float qscale = conv_quantize_weights(h, plan, dw, (int)weights, qw, &is_unsigned) / 127.f / 127.f;
  conv_forward_int8(h, plan, 1, dx, -1.f, qin, qw, qscale, db, out, nullptr);  // quantises the input
  auto pass = [&] {
    if (state.range(1))
      cpu::conv_int8_forward_portable(h, shape, 1, qin, qw, qscale, db, out);
    else
      conv_forward_int8(h, plan, 1, dx, -1.f, qin, qw, qscale, db, out, nullptr);
  };
  const double seconds = cpu_seconds_per_call(pass, 20);
  for (auto _ : state) pass();
  state.counters["GOPs"] = 2.0 * weights * oh * ow / seconds * 1e-9;
  state.SetLabel(std::to_string(k.w) + "x" + std::to_string(k.h) + "x" + std::to_string(k.c) + " " +
                 std::to_string(k.size) + "x" + std::to_string(k.size) + "/" + std::to_string(k.stride) + " -> " +
                 std::to_string(k.filters));
  conv_plan_destroy(h, plan);
  for (void* p : {(void*)dx, (void*)dw, (void*)db, (void*)out, (void*)qw, (void*)qin}) cuda_free(h, p);
  destroy_handle(&ctx);
}
BENCHMARK(BM_ConvInt8)->ArgsProduct({{0, 1, 2, 3, 4}, {0, 1}})->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
