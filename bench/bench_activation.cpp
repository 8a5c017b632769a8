// Throughput of the activations and the image conversions, in GB/s of tensor traffic, on
// every backend present. The peer is a plain tensor copy of the same bytes on the same
// backend: the ratio says how close each pass comes to the memory bandwidth it has to move.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "orva/activation.h"
#include "orva/cuda.h"
#include "orva/data.h"

namespace {

constexpr int kElements = 1 << 22;        // a 4 M-value feature map, 8 MB of halves
constexpr int kFramePixels = 1920 * 1080;  // one full-HD frame
constexpr int kFilters = 64;

struct Backend {
  std::string name;
  CudaHandle ctx{};
};

void set_rate(benchmark::State& state, double bytes_per_iteration) {
  state.counters["GB/s"] =
      benchmark::Counter(bytes_per_iteration * state.iterations() / 1e9, benchmark::Counter::kIsRate);
}

std::vector<Ftype> ramp(size_t n) {
  std::vector<Ftype> v(n);
  for (size_t i = 0; i < n; ++i) v[i].__x = float2half_cpu((float)((int)(i % 2001) - 1000) / 250.f);
  return v;
}

// Tensors of one backend, kept for the whole run.
struct Workload {
  void* h;
  Ftype* x;
  Ftype* y;
  Ftype* bias;
  Ftype* planes;  // a frame's worth of planar values
  unsigned char* raw;
  std::vector<unsigned char> frame;
  explicit Workload(void* handle) : h(handle), frame((size_t)kFramePixels * 3) {
    x = (Ftype*)cuda_malloc(h, (size_t)kElements * 2);
    y = (Ftype*)cuda_malloc(h, (size_t)kElements * 2);
    bias = (Ftype*)cuda_malloc(h, kFilters * 2);
    planes = (Ftype*)cuda_malloc(h, (size_t)kFramePixels * 3 * 2);
    raw = (unsigned char*)cuda_malloc(h, (size_t)kFramePixels * 3);
    const std::vector<Ftype> values = ramp(kElements);
    cuda_push(h, x, values.data(), values.size() * 2);
    cuda_push(h, y, values.data(), values.size() * 2);
    cuda_push(h, bias, values.data(), kFilters * 2);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = (unsigned char)(i * 7);
    cvt_cv2data(h, frame.data(), planes, raw, kFramePixels, 3, 1, 1);
    cuda_sync(h);
  }
  ~Workload() {
    cuda_free(h, x);
    cuda_free(h, y);
    cuda_free(h, bias);
    cuda_free(h, planes);
    cuda_free(h, raw);
  }
};

void register_all(Workload* w, const std::string& backend) {
  benchmark::RegisterBenchmark(("Copy/" + backend).c_str(), [w](benchmark::State& state) {
    for (auto _ : state) {
      cuda_copy(w->h, w->y, w->x, (size_t)kElements * 2);
      cuda_sync(w->h);
    }
    set_rate(state, 4.0 * kElements);
  })->UseRealTime();

  const struct {
    const char* name;
    int id;
  } activations[] = {{"leaky", 7}, {"relu", 1}, {"logistic", 0}, {"mish", 15}};
  for (const auto& a : activations) {
    const int id = a.id;
    benchmark::RegisterBenchmark(("Activate/" + backend + "/" + a.name).c_str(), [w, id](benchmark::State& state) {
      for (auto _ : state) {
        activation_forward(w->h, id, w->x, kElements);
        cuda_sync(w->h);
      }
      set_rate(state, 4.0 * kElements);
    })->UseRealTime();
    benchmark::RegisterBenchmark(("BiasActivate/" + backend + "/" + a.name).c_str(), [w, id](benchmark::State& state) {
      for (auto _ : state) {
        activation_bias_forward(w->h, id, w->x, w->bias, 1, kFilters, kElements / kFilters);
        cuda_sync(w->h);
      }
      set_rate(state, 4.0 * kElements);
    })->UseRealTime();
    benchmark::RegisterBenchmark(("Gradient/" + backend + "/" + a.name).c_str(), [w, id](benchmark::State& state) {
      for (auto _ : state) {
        activation_gradient(w->h, id, w->x, kElements, w->y);
        cuda_sync(w->h);
      }
      set_rate(state, 6.0 * kElements);
    })->UseRealTime();
  }

  // Bytes in, halves out (and back): the frame crosses to the backend as part of the call.
  benchmark::RegisterBenchmark(("Cv2Data/" + backend + "/bgr_1080p").c_str(), [w](benchmark::State& state) {
    for (auto _ : state) {
      cvt_cv2data(w->h, w->frame.data(), w->planes, w->raw, kFramePixels, 3, 1, 1);
      cuda_sync(w->h);
    }
    set_rate(state, 3.0 * kFramePixels * 3);
  })->UseRealTime();
  benchmark::RegisterBenchmark(("Data2Cv/" + backend + "/bgr_1080p").c_str(), [w](benchmark::State& state) {
    for (auto _ : state) cvt_data2cv(w->h, w->planes, w->frame.data(), w->raw, kFramePixels, 3);
    set_rate(state, 3.0 * kFramePixels * 3);
  })->UseRealTime();
}

// Prints each pass's rate as a fraction of the copy measured on the same backend.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      auto it = r.counters.find("GB/s");
      if (it != r.counters.end() && r.run_type == Run::RT_Iteration) _rates.emplace_back(r.benchmark_name(), it->second.value);
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::map<std::string, double> copy;
    for (const auto& [name, rate] : _rates)
      if (name.rfind("Copy/", 0) == 0) copy[name.substr(5, name.find('/', 5) - 5)] = rate;
    printf("\n%-36s %10s %14s\n", "pass", "GB/s", "ratio to copy");
    for (const auto& [name, rate] : _rates) {
      const size_t a = name.find('/') + 1;
      const std::string backend = name.substr(a, name.find('/', a) - a);
      const double peer = copy.count(backend) ? copy[backend] : 0;
      printf("%-36s %10.2f %14.2f\n", name.c_str(), rate, peer > 0 ? rate / peer : 0.0);
    }
  }

 private:
  std::vector<std::pair<std::string, double>> _rates;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::vector<int> indices = {-1};
  if (cuda_device_count() > 0) indices.push_back(0);
  std::vector<Backend> backends(indices.size());
  std::vector<Workload*> loads;
  for (size_t k = 0; k < indices.size(); ++k) {
    create_handle(&backends[k].ctx, indices[k]);
    backends[k].name = handle_name(&backends[k].ctx);
    loads.push_back(new Workload(&backends[k].ctx));
    register_all(loads.back(), backends[k].name);
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (Workload* w : loads) delete w;
  for (Backend& b : backends) destroy_handle(&b.ctx);
  benchmark::Shutdown();
  return 0;
}
