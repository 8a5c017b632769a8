// Host post-processing of one detection: decoding a 13 x 13 grid of 5 anchors, suppression and
// conversion to frame pixels (DetectNetwork::getDetect), per image, for 20 and 80 classes.
// Arguments: classes, per-mille of candidates with high objectness (typical scenes light up a
// few percent of the candidates; the dense case stresses the quadratic suppression),
// suppression (1 hard at 0.45, 0 soft).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "orva/networks.h"

namespace {

constexpr int kGrid = 13, kAnchors = 5;

struct Case {
  std::unique_ptr<ORVA::DetectNetwork> net;
  std::vector<float> output;
};

// One network and one head output per (classes, density), built once.
Case& detect_case(int classes, int per_mille) {
  static std::map<std::pair<int, int>, Case> cases;
  Case& c = cases[{classes, per_mille}];
  if (c.net) return c;
  const int entries = 5 + classes, channels = entries * kAnchors;
  const std::string path = "/tmp/orva_bench_detect_" + std::to_string(classes) + ".cfg";
  FILE* f = fopen(path.c_str(), "w");
  fprintf(f,
          "[network]\nwidth=%d\nheight=%d\nchannels=%d\n[region]\nclasses=%d\nnum=%d\nsoftmax=1\n"
          "anchors=1.08,1.19, 3.42,4.41, 6.63,11.38, 9.42,5.11, 16.62,10.52\n",
          kGrid, kGrid, channels, classes, kAnchors);
  fclose(f);
  c.net = std::make_unique<ORVA::DetectNetwork>(ORVA::TEST, 1, -1);
  c.net->load(path.c_str(), nullptr);

  // Raw head values: centres and sizes spread, objectness low except on a share of the
  // candidates, one dominant class per candidate.
  std::mt19937 gen(1234);
  std::uniform_real_distribution<float> u(-1.f, 1.f);
  std::uniform_int_distribution<int> pick(0, classes - 1), mille(0, 999);
  const int wh = kGrid * kGrid;
  std::vector<float> raw((size_t)channels * wh);
  for (int n = 0; n < kAnchors; ++n)
    for (int loc = 0; loc < wh; ++loc) {
      auto at = [&](int e) -> float& { return raw[((size_t)n * entries + e) * wh + loc]; };
      for (int e = 0; e < 4; ++e) at(e) = 2 * u(gen);
      at(4) = mille(gen) < per_mille ? 3.f + u(gen) : -6.f + u(gen);
      for (int k = 0; k < classes; ++k) at(5 + k) = 2 * u(gen);
      at(5 + pick(gen)) = 6.f;
    }
  const float* out = c.net->predict(raw.data(), 1);
  c.output.assign(out, out + c.net->getOutputs());
  return c;
}

void BM_GetDetect(benchmark::State& state) {
  const int classes = (int)state.range(0), per_mille = (int)state.range(1);
  const bool hard = state.range(2) != 0;
  Case& c = detect_case(classes, per_mille);
  cv::Mat frame;
  cv::Size size(1280, 720);
  ORVA::DetectObjList objs;
  objs.reserve(kGrid * kGrid * kAnchors);
  for (auto _ : state) {
    c.net->getDetect(c.output.data(), objs, frame, size, 0.3f, hard ? 0.45f : 0.f);
    benchmark::DoNotOptimize(objs.data());
  }
  state.counters["objects"] = (double)objs.size();
  state.counters["candidates"] = (double)kGrid * kGrid * kAnchors;
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_GetDetect)
    ->ArgNames({"classes", "lit_per_mille", "hard"})
    ->Args({20, 50, 1})
    ->Args({80, 50, 1})
    ->Args({20, 50, 0})
    ->Args({20, 500, 1})
    ->Args({80, 500, 1})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
