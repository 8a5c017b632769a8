// Inference time of a convolutional stack the size of a small 416 x 416 single-stage detector
// (nine 3x3 and 1x1 convolutions, 16 to 1024 filters), whole network and layer by layer, on the
// host backend. Reported as ms per pass and GFLOP/s (the layers' own operation counts).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
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

// One network per batch size, built once and kept for the whole run.
ORVA::Network& stack_network(int batch) {
  static std::unique_ptr<ORVA::Network> nets[5];
  std::unique_ptr<ORVA::Network>& net = nets[batch];
  if (!net) {
    const std::string path = "/tmp/orva_bench_network.cfg";
    FILE* f = fopen(path.c_str(), "w");
    fputs(kStack, f);
    fclose(f);
    net = std::make_unique<ORVA::Network>(ORVA::TEST, batch, -1);
    net->load(path.c_str(), nullptr);
    // Fixed weights of a plausible size; the values do not change the arithmetic done.
    for (int i = 0; i < net->getLayerCount(); ++i) {
      ORVA::Layer* l = net->getLayer(i);
      std::vector<float> w(l->_weights, 0.01f);
      std::vector<_half> h(w.size());
      float2half_cpu(w.data(), h.data(), w.size());
      cuda_push(net->getHandle(), l->_weight, h.data(), h.size() * 2);
    }
    std::vector<float> input((size_t)batch * 416 * 416 * 3, 0.5f);
    net->predict(input.data(), batch);
  }
  return *net;
}

size_t network_flops(ORVA::Network& net) {
  size_t flops = 0;
  for (int i = 0; i < net.getLayerCount(); ++i) flops += net.getLayer(i)->_flops;
  return flops;
}

void BM_StackInference(benchmark::State& state) {
  const int batch = (int)state.range(0);
  ORVA::Network& net = stack_network(batch);
  std::vector<float> input((size_t)batch * 416 * 416 * 3, 0.5f);
  for (auto _ : state) benchmark::DoNotOptimize(net.predict(input.data(), batch));
  const double flops = (double)network_flops(net) * batch;
  state.counters["GFLOP/s"] = benchmark::Counter(flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_StackInference)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(3);

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
    ->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
