// Video analytics: assignment solver, tracker frame, image hash, background update.
//
//   bench_video --benchmark_min_time=0.2
//
// Goals on the development machine: a tracker frame with 50 tracks and 50 detections under
// 1 ms; background update under 1 ns per element. The OpenCV absdiff beside the background
// update reads the same frame and writes as many bytes: it is the memory-bound floor.
#include <benchmark/benchmark.h>

#include <opencv2/imgproc.hpp>

#include <random>
#include <vector>

#include "orva/bgs.h"
#include "orva/image.h"
#include "orva/tracker.h"

namespace {

// Costs shaped like the tracker's: 1 - IoU + 1e-5, mostly 1.00001 (no overlap), a few
// overlaps per row; and uniform random costs, the harder case for the solver.
std::vector<std::vector<float>> random_costs(int n, bool trackerLike) {
  std::mt19937 gen(n);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<std::vector<float>> c(n, std::vector<float>(n));
  for (int i = 0; i < n; i++) {
    for (int j = 0; j < n; j++) {
      if (!trackerLike)
        c[i][j] = u(gen);
      else
        c[i][j] = (j == i || u(gen) < 2.0f / n) ? 0.1f + 0.5f * u(gen) : 1.00001f;
    }
  }
  return c;
}

void BM_SolveAssignment(benchmark::State& state) {
  const int n = (int)state.range(0);
  auto cost = random_costs(n, state.range(1) != 0);
  std::vector<int> a;
  for (auto _ : state) benchmark::DoNotOptimize(solveAssignment(cost, a));
  state.SetLabel(state.range(1) ? "tracker-like" : "uniform");
}
BENCHMARK(BM_SolveAssignment)
    ->ArgsProduct({{10, 50, 200}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

// 50 boxes on a grid of a 1080p frame, each jittering by a pixel or two around a slow drift:
// every track is matched every frame, so all 50 stay live.
void BM_TrackerProcess(benchmark::State& state) {
  const int count = (int)state.range(0);
  cv::Mat frame(1080, 1920, CV_8UC3);
  std::mt19937 gen(7);
  std::normal_distribution<float> jitter(0.0f, 1.0f);
  auto detections = [&](int f) {
    ORVA::DetectObjList dets;
    for (int k = 0; k < count; k++) {
      int bx = 60 + (k % 10) * 180, by = 60 + (k / 10) * 180;
      int drift = (f / 4) % 40;
      dets.push_back(ORVA::DetectObj{k % 3, -1, 0.8f,
                                     cv::Rect(bx + drift + (int)jitter(gen), by + (int)jitter(gen),
                                              80 + (int)jitter(gen), 100 + (int)jitter(gen))});
    }
    return dets;
  };
  ORVA::Tracker tracker(5, 3, 0.3f);
  int f = 0;
  for (; f < 10; f++) {
    auto d = detections(f);
    tracker.process(frame, d);
  }
  std::vector<ORVA::DetectObjList> frames;
  for (int i = 0; i < 64; i++) frames.push_back(detections(f + i));
  size_t reported = 0;
  int i = 0;
  for (auto _ : state) {
    ORVA::DetectObjList objs = frames[i++ & 63];
    tracker.process(frame, objs);
    reported += objs.size();
  }
  state.counters["reported"] = benchmark::Counter((double)reported, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_TrackerProcess)->Arg(50)->Unit(benchmark::kMicrosecond);

cv::Mat test_frame(int w, int h, int type) {
  cv::Mat m(h, w, type);
  cv::randu(m, 0, 256);
  cv::GaussianBlur(m, m, cv::Size(0, 0), 3);
  return m;
}

void BM_ComputeHash(benchmark::State& state) {
  const auto mode = (ORVA::HashMode)state.range(0);
  cv::Mat img = test_frame(1920, 1080, CV_8UC3), hash;
  for (auto _ : state) {
    ORVA::computeHash(img, hash, mode);
    benchmark::DoNotOptimize(hash.data);
  }
}
BENCHMARK(BM_ComputeHash)
    ->Arg(ORVA::GRAY_32BIT)
    ->Arg(ORVA::GRAY_64BIT)
    ->Arg(ORVA::RGB_96BIT)
    ->Arg(ORVA::RGB_192BIT)
    ->Arg(ORVA::YUV_96BIT)
    ->Arg(ORVA::YUV_128BIT)
    ->Arg(ORVA::HSV_96BIT)
    ->Arg(ORVA::HSV_128BIT)
    ->Unit(benchmark::kMicrosecond);

// Seconds per element inverted into nanoseconds per element.
benchmark::Counter ns_per_element(double elements) {
  return benchmark::Counter(elements * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_MedianBGSUpdate(benchmark::State& state) {
  const int c = (int)state.range(0);
  ORVA::MedianBGS bgs(1280, 720, c);
  bgs.setParameter(8);  // keep stepping: a frozen model would be the same work anyway
  cv::Mat frames[2] = {test_frame(1280, 720, CV_8UC(c)), test_frame(1280, 720, CV_8UC(c))};
  bgs.init(frames[0], -1);
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(bgs.update(frames[i++ & 1], 0.f));
  state.counters["ns/elem"] = ns_per_element(1280.0 * 720 * c);
  state.SetLabel(c == 1 ? "grey" : "colour");
}
BENCHMARK(BM_MedianBGSUpdate)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

void BM_OpenCVAbsdiffPeer(benchmark::State& state) {
  const int c = (int)state.range(0);
  cv::Mat a = test_frame(1280, 720, CV_8UC(c)), b = test_frame(1280, 720, CV_8UC(c)), out;
  for (auto _ : state) {
    cv::absdiff(a, b, out);
    benchmark::DoNotOptimize(out.data);
  }
  state.counters["ns/elem"] = ns_per_element(1280.0 * 720 * c);
  state.SetLabel(c == 1 ? "grey" : "colour");
}
BENCHMARK(BM_OpenCVAbsdiffPeer)->Arg(1)->Arg(3)->Unit(benchmark::kMicrosecond);

void BM_ResizeRatio(benchmark::State& state) {
  cv::Mat img = test_frame(1920, 1080, CV_8UC3), dst;
  for (auto _ : state) {
    cv::Size size(416, 416);
    ORVA::resize_ratio(img, dst, &size, 0.0f, 128);
    benchmark::DoNotOptimize(dst.data);
  }
}
BENCHMARK(BM_ResizeRatio)->Unit(benchmark::kMicrosecond);

void BM_ClassifyColor(benchmark::State& state) {
  cv::Mat img = test_frame(1920, 1080, CV_8UC3);
  for (auto _ : state) benchmark::DoNotOptimize(ORVA::classifyColor(img, cv::Rect(800, 400, 200, 300), 0.5f));
}
BENCHMARK(BM_ClassifyColor)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
