// Soak of the asynchronous detector on the host backend: four sources offer 640 x 360 frames
// to a small 128 x 96 detector (batch 4) until each has had its share accepted, either as
// cameras of a fixed rate (a refused frame is gone, the next comes on time) or back to back.
// Reported: frames/s detected, frames dropped by the queue bound, latency from process to
// getResult (p50, p99) and resident memory after the warm-up and at the end.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "orva/networks.h"
#include "orva/orva.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* kDetector =
    "[network]\nwidth=128\nheight=96\nchannels=3\n"
    "[convolution]\nfilters=16\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=32\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=64\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=128\nsize=3\nstride=2\nbatch_normalize=1\nactivation=leaky\n"
    "[convolution]\nfilters=16\nsize=1\nactivation=linear\n"
    "[region]\nclasses=3\nsoftmax=1\nnum=2\nanchors=1,1, 2.5,1.5\n";

double rss_mib() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * (double)sysconf(_SC_PAGESIZE) / (1 << 20);
}

std::unique_ptr<ORVA::DetectNetwork> detector(int batch) {
  const char* path = "/tmp/orva_bench_detect_task.cfg";
  FILE* f = fopen(path, "w");
  fputs(kDetector, f);
  fclose(f);
  auto net = std::make_unique<ORVA::DetectNetwork>(ORVA::TEST, batch, -1);
  net->load(path, nullptr);
  // Small random weights: scores spread over (0, 1), so the decoding and suppression see a
  // realistic number of candidates above the default threshold.
  for (int i = 0; i < net->getLayerCount(); ++i) {
    ORVA::Layer* l = net->getLayer(i);
    if (!l->_weights) continue;
    std::vector<float> w(l->_weights);
    for (float& v : w) v = rand_normal(0.1f);
    std::vector<_half> h(w.size());
    float2half_cpu(w.data(), h.data(), w.size());
    cuda_push(net->getHandle(), l->_weight, h.data(), h.size() * sizeof(_half));
  }
  cuda_sync(net->getHandle());
  return net;
}

struct Source {
  std::vector<cv::Mat> frames;
  std::vector<Clock::time_point> sent;
  size_t offered = 0;
  size_t accepted = 0;
};

void BM_DetectTaskSoak(benchmark::State& state) {
  constexpr int kSources = 4, kBatch = 4;
  const size_t warmup = 50, quota = (size_t)state.range(0);
  const int fps = (int)state.range(1);  // per source; 0: back to back
  auto net = detector(kBatch);
  std::vector<Source> sources(kSources);
  for (Source& s : sources) {
    for (int i = 0; i < 4; ++i) {
      s.frames.emplace_back(360, 640, CV_8UC3);
      cv::randu(s.frames.back(), 0, 256);
    }
    s.sent.resize(warmup + quota);
  }
  std::vector<double> latency;
  latency.reserve(kSources * quota);
  double rss_start = 0, rss_end = 0, seconds = 0;
  size_t dropped = 0;

  for (auto _ : state) {
    ORVA::DetectTask task(net.get());
    task.run();
    std::vector<std::thread> producers;
    for (int id = 0; id < kSources; ++id)
      producers.emplace_back([&, id] {
        Source& s = sources[id];
        const Clock::time_point start = Clock::now();
        while (s.accepted < s.sent.size()) {
          if (fps) std::this_thread::sleep_until(start + std::chrono::microseconds(1000000LL * s.offered / fps));
          ORVA::TaskInput in{(unsigned)id, (unsigned)s.offered, s.frames[s.offered % s.frames.size()]};
          ++s.offered;
          // Written before process hands the frame over, read after its result came back.
          s.sent[s.accepted] = Clock::now();
          if (task.process(in))
            ++s.accepted;
          else if (!fps)
            std::this_thread::yield();
        }
      });
    // The results of a source come back in its submission order: the k-th result of source
    // id belongs to its k-th accepted frame.
    std::vector<size_t> received(kSources);
    size_t total = 0;
    Clock::time_point t0;
    ORVA::DetectTaskResult r;
    while (total < kSources * (warmup + quota)) {
      if (!task.getResult(r)) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        continue;
      }
      const size_t k = received[r.id]++;
      if (++total == kSources * warmup) {
        rss_start = rss_mib();
        t0 = Clock::now();
      }
      if (k >= warmup) latency.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sources[r.id].sent[k]).count());
    }
    seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    for (auto& p : producers) p.join();
    task.stop();
    rss_end = rss_mib();
    for (Source& s : sources) dropped += s.offered - s.accepted;
  }

  std::sort(latency.begin(), latency.end());
  auto pct = [&](double p) { return latency[std::min(latency.size() - 1, (size_t)(p * latency.size()))]; };
  state.counters["frames"] = (double)kSources * quota;
  state.counters["frames/s"] = kSources * quota / seconds;
  state.counters["dropped"] = (double)dropped;
  state.counters["p50_ms"] = pct(0.50);
  state.counters["p99_ms"] = pct(0.99);
  state.counters["rss_start_MiB"] = rss_start;
  state.counters["rss_end_MiB"] = rss_end;
}
// Per source: 750 frames after a warm-up of 50, 3000 detected in all; cameras of 100 frames/s
// each, then back to back.
BENCHMARK(BM_DetectTaskSoak)
    ->ArgNames({"frames", "fps"})
    ->Args({750, 100})
    ->Args({750, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
