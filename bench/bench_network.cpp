// Inference time of a convolutional stack the size of a small 416 x 416 single-stage detector
// (nine 3x3 and 1x1 convolutions, 16 to 1024 filters), whole network and layer by layer, on the
// host backend, with loaded random weights and random inputs. Reported as ms per pass and
// GFLOP/s (the layers' own operation counts). bench_peer runs the same stack side by side with
// OpenCV DNN.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "layer/convolution_layer.h"
#include "orva/orva.h"

namespace {

const char* kStack =
    "[network]\nwidth=416\nheight=416\nchannels=3\n"
    "[convolution]\nfilters=16\nsize=3\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=32\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=64\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=128\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=256\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=512\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=1024\nsize=3\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=256\nsize=1\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=125\nsize=1\nactivation=linear\n";

// Random weights in the weights-only layout (biases, normalisation record, weights) for the
// layers of `shape`, a network built from the same description without weights. Variances
// stay well above the folding epsilon; weights keep the activations' scale through the stack.
void write_random_weights(ORVA::Network& shape, const std::string& path) {
  std::mt19937 rng(7);
  std::vector<float> data;
  auto uniform = [&](size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    for (size_t i = 0; i < n; ++i) data.push_back(d(rng));
  };
  for (int i = 0; i < shape.getLayerCount(); ++i) {
    auto* l = static_cast<ORVA::ConvolutionLayer*>(shape.getLayer(i));
    uniform(l->_kn, -0.1f, 0.1f);
    if (l->_withbn) {
      uniform(l->_kn, 0.5f, 1.5f);
      uniform(l->_kn, -0.1f, 0.1f);
      uniform(l->_kn, 0.5f, 1.5f);
    }
    const float a = std::sqrt(6.f * l->_kn / (float)l->_weights);
    uniform(l->_weights, -a, a);
  }
  FILE* f = fopen(path.c_str(), "wb");
  const int version[3] = {0, 2, 0};
  const uint64_t seen = 0;
  fwrite(version, 4, 3, f);
  fwrite(&seen, 8, 1, f);
  fwrite(data.data(), 4, data.size(), f);
  fclose(f);
}

std::vector<float> random_input(int batch) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> d(0.f, 1.f);
  std::vector<float> v((size_t)batch * 416 * 416 * 3);
  for (float& x : v) x = d(rng);
  return v;
}

// One network per batch size, built once with loaded random weights (batch normalisation
// folded at load, as in any inference) and kept for the whole run.
ORVA::Network& stack_network(int batch) {
  static std::unique_ptr<ORVA::Network> nets[5];
  std::unique_ptr<ORVA::Network>& net = nets[batch];
  if (!net) {
    const std::string cfg = "/tmp/orva_bench_network.cfg", weights = "/tmp/orva_bench_network.weights";
    FILE* f = fopen(cfg.c_str(), "w");
    fputs(kStack, f);
    fclose(f);
    {
      ORVA::Network shape(ORVA::TEST, 1, -1);
      shape.load(cfg.c_str(), nullptr);
      write_random_weights(shape, weights);
    }
    net = std::make_unique<ORVA::Network>(ORVA::TEST, batch, -1);
    net->load(cfg.c_str(), weights.c_str());
    remove(weights.c_str());
    std::vector<float> input = random_input(batch);
    net->predict(input.data(), batch);
  }
  return *net;
}

// False when a pass left every output zero: the timing would not be of real work.
bool outputs_live(ORVA::Network& net, int batch) {
  const float* out = net.predict(batch);
  for (size_t i = 0; i < (size_t)net.getOutputs() * batch; ++i)
    if (out[i] != 0.f) return true;
  return false;
}

size_t network_flops(ORVA::Network& net) {
  size_t flops = 0;
  for (int i = 0; i < net.getLayerCount(); ++i) flops += net.getLayer(i)->_flops;
  return flops;
}

void BM_StackInference(benchmark::State& state) {
  const int batch = (int)state.range(0);
  ORVA::Network& net = stack_network(batch);
  std::vector<float> input = random_input(batch);
  if (!outputs_live(net, batch)) state.SkipWithError("all outputs are zero");
  for (auto _ : state) benchmark::DoNotOptimize(net.predict(input.data(), batch));
  const double flops = (double)network_flops(net) * batch;
  state.counters["GFLOP/s"] = benchmark::Counter(flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_StackInference)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();

// Layer i alone, reading the output its predecessor left from the warm-up pass.
void BM_StackLayer(benchmark::State& state) {
  const int batch = (int)state.range(0), index = (int)state.range(1);
  ORVA::Network& net = stack_network(batch);
  ORVA::Layer* l = net.getLayer(index);
  size_t workspace_bytes = 0;
  for (int i = 0; i < net.getLayerCount(); ++i) workspace_bytes = std::max(workspace_bytes, net.getLayer(i)->_workspace_size);
  void* workspace = cuda_malloc(net.getHandle(), workspace_bytes + 1);
  ORVA::NetworkParams params;
  params.input = index ? net.getLayer(index - 1)->_output : net.getInput();
  params.workspace = static_cast<Ftype*>(workspace);
  params.batch = batch;
  params.net = &net;
  for (auto _ : state) {
    l->forward(params);
    cuda_sync(net.getHandle());
  }
  cuda_free(net.getHandle(), workspace);
  state.SetLabel(std::to_string(l->_out_c) + " filters " + std::to_string(l->_in_w) + "x" + std::to_string(l->_in_h) +
                 "x" + std::to_string(l->_in_c));
  state.counters["GFLOP/s"] =
      benchmark::Counter((double)l->_flops * batch * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_StackLayer)
    ->ArgsProduct({{1, 4}, {0, 1, 2, 3, 4, 5, 6, 7, 8}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
