// Host twins of the data-moving layers against a plain copy of the same bytes (the larger of
// the layer's input and output), and inference of a tiny-YOLO-style trunk at 416 x 416.
//   vs_copy = copy time / layer time: 1 means the layer runs at copy speed.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "orva/orva.h"

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

// Mean seconds of `reps` calls of fn.
template <typename Fn>
double seconds_per_call(Fn fn, int reps) {
  fn();
  const auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < reps; ++i) fn();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() / reps;
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
  const double copy = seconds_per_call([&] { memcpy(to.data(), from.data(), bytes); benchmark::DoNotOptimize(to.data()); }, 50);
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) l->forward(params);
  const double layer = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() / state.iterations();
  state.SetBytesProcessed((int64_t)state.iterations() * bytes);
  state.counters["vs_copy"] = copy / layer;
  state.SetLabel(std::to_string(l->_in_w) + "x" + std::to_string(l->_in_h) + "x" + std::to_string(l->_in_c) + " -> " +
                 std::to_string(l->_out_w) + "x" + std::to_string(l->_out_h) + "x" + std::to_string(l->_out_c));
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
BENCHMARK(BM_TinyYoloTrunk)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
