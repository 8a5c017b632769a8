// orva bench: per-layer times and frames per second of a model on one backend.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>

#include "cli.h"

using namespace orvacli;

namespace {

using Clock = std::chrono::steady_clock;

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
  for (int b : batches) printf("  batch %-2d ms", b);
  printf("\n");
  for (int i = 0; i < net.getLayerCount(); ++i) {
    const ORVA::LayerInfo l = net.layerInfo(i);
    printf("%3d  %-11s %4d x%4d x%5d", i, l.name, l.out_w, l.out_h, l.out_c);
    for (const auto& col : layer_ms) printf("  %11.3f", col[i]);
    printf("\n");
  }
  printf("%-35s", "     total of the layers");
  for (const auto& col : layer_ms) {
    double t = 0;
    for (double v : col) t += v;
    printf("  %11.3f", t);
  }
  printf("\n\n");
  for (size_t k = 0; k < batches.size(); ++k)
    printf("batch %d: %.1f frames/s (%.2f ms a pass, input and output transfers included)\n", batches[k], fps[k],
           1000.0 * batches[k] / fps[k]);
  return kOk;
}
