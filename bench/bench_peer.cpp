// Side-by-side inference time of the host backend and OpenCV DNN (its darknet-dialect
// reader, CPU target) on the same networks, the same random weights and the same input.
// One weights-only file serves both: it has the darknet layout.
//
// Per network, batch (1, 4) and thread count (1, 2): min and median milliseconds of each over
// the timed passes (the two engines alternate pass by pass, so both see the same machine
// load), the ratio host / OpenCV of the medians, and the relative L2 difference of the
// outputs.
//
//   bench_peer [--passes N] [--warmup N] [--network NAME] [--batch B] [--threads T]
#include <tbb/task_arena.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <random>
#include <string>
#include <vector>

#include "orva/orva.h"

namespace {

// One layer, written in both description dialects.
struct LayerSpec {
  enum Kind { kConv, kMaxPool } kind;
  int filters, size, stride;
  bool bn;
  const char* activation;
};

LayerSpec conv(int filters, int size, int stride, bool bn = true, const char* act = "leaky") {
  return {LayerSpec::kConv, filters, size, stride, bn, act};
}
LayerSpec maxpool(int size, int stride) { return {LayerSpec::kMaxPool, 0, size, stride, false, nullptr}; }

struct PeerModel {
  const char* name;
  int w, h, c;
  std::vector<LayerSpec> layers;
};

std::vector<PeerModel> networks() {
  return {
      // Strided convolutions in place of pooling: 3.8 GFLOP per 416 x 416 image.
      {"conv-stack",
       416,
       416,
       3,
       {conv(16, 3, 1), conv(32, 3, 2), conv(64, 3, 2), conv(128, 3, 2), conv(256, 3, 2), conv(512, 3, 2),
        conv(1024, 3, 1), conv(256, 1, 1), conv(125, 1, 1, false, "linear")}},
      // The tiny-YOLO trunk: stride-1 convolutions between 2 x 2 max-pools, the last pool of
      // stride 1; 7 GFLOP per image.
      {"tiny-yolo",
       416,
       416,
       3,
       {conv(16, 3, 1), maxpool(2, 2), conv(32, 3, 1), maxpool(2, 2), conv(64, 3, 1), maxpool(2, 2), conv(128, 3, 1),
        maxpool(2, 2), conv(256, 3, 1), maxpool(2, 2), conv(512, 3, 1), maxpool(2, 1), conv(1024, 3, 1),
        conv(1024, 3, 1), conv(125, 1, 1, false, "linear")}},
      // The face detector joins here once its layers exist on the host backend.
  };
}

std::string orva_cfg(const PeerModel& n, int batch) {
  std::string s = "[network]\nwidth=" + std::to_string(n.w) + "\nheight=" + std::to_string(n.h) +
                  "\nchannels=" + std::to_string(n.c) + "\nbatch=" + std::to_string(batch) + "\n";
  for (const LayerSpec& l : n.layers) {
    if (l.kind == LayerSpec::kConv)
      s += "[convolution]\nfilters=" + std::to_string(l.filters) + "\nsize=" + std::to_string(l.size) +
           "\nstride=" + std::to_string(l.stride) + "\nbatch_normalize=" + (l.bn ? "1" : "0") +
           "\nactivation=" + l.activation + "\n";
    else
      s += "[maxpool]\nsize=" + std::to_string(l.size) + "\nstride=" + std::to_string(l.stride) + "\n";
  }
  return s;
}

std::string darknet_cfg(const PeerModel& n, int batch) {
  std::string s = "[net]\nwidth=" + std::to_string(n.w) + "\nheight=" + std::to_string(n.h) +
                  "\nchannels=" + std::to_string(n.c) + "\nbatch=" + std::to_string(batch) + "\n";
  for (const LayerSpec& l : n.layers) {
    if (l.kind == LayerSpec::kConv)
      s += "[convolutional]\nfilters=" + std::to_string(l.filters) + "\nsize=" + std::to_string(l.size) +
           "\nstride=" + std::to_string(l.stride) + "\npad=1\nbatch_normalize=" + (l.bn ? "1" : "0") +
           "\nactivation=" + l.activation + "\n";
    else
      s += "[maxpool]\nsize=" + std::to_string(l.size) + "\nstride=" + std::to_string(l.stride) + "\n";
  }
  return s;
}

void write_text(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "w");
  if (!f || fwrite(text.data(), 1, text.size(), f) != text.size()) {
    fprintf(stderr, "cannot write %s\n", path.c_str());
    exit(1);
  }
  fclose(f);
}

// Weights-only file: version 0.2.0, 64-bit samples seen, then per convolution the biases,
// the normalisation record (scale, mean, variance) and the weights. Variances stay well above
// the folding epsilon so that the two engines' epsilons do not matter.
void write_weights(const PeerModel& n, const std::string& path, std::mt19937& rng) {
  std::vector<float> data;
  auto uniform = [&](size_t count, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    for (size_t i = 0; i < count; ++i) data.push_back(d(rng));
  };
  int channels = n.c;
  for (const LayerSpec& l : n.layers) {
    if (l.kind != LayerSpec::kConv) continue;
    const int k = channels * l.size * l.size;
    uniform(l.filters, -0.1f, 0.1f);
    if (l.bn) {
      uniform(l.filters, 0.5f, 1.5f);
      uniform(l.filters, -0.1f, 0.1f);
      uniform(l.filters, 0.5f, 1.5f);
    }
    const float a = std::sqrt(6.f / (float)k);  // keeps the activations' scale through the stack
    uniform((size_t)l.filters * k, -a, a);
    channels = l.filters;
  }
  FILE* f = fopen(path.c_str(), "wb");
  const int version[3] = {0, 2, 0};
  const uint64_t seen = 0;
  if (!f || fwrite(version, 4, 3, f) != 3 || fwrite(&seen, 8, 1, f) != 1 ||
      fwrite(data.data(), 4, data.size(), f) != data.size()) {
    fprintf(stderr, "cannot write %s\n", path.c_str());
    exit(1);
  }
  fclose(f);
}

struct Stats {
  double min_ms, median_ms;
};

Stats stats(std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  const size_t n = ms.size();
  return {ms.front(), n % 2 ? ms[n / 2] : 0.5 * (ms[n / 2 - 1] + ms[n / 2])};
}

double relative_l2(const float* a, const float* b, size_t n) {
  double diff = 0, ref = 0;
  for (size_t i = 0; i < n; ++i) {
    const double d = (double)a[i] - b[i];
    diff += d * d;
    ref += (double)b[i] * b[i];
  }
  return ref > 0 ? std::sqrt(diff / ref) : (diff > 0 ? INFINITY : 0.0);
}

struct Options {
  int passes = 20, warmup = 3;
  std::string network;
  int batch = 0, threads = 0;
};

template <typename F>
double time_ms(F f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

bool run_row(const PeerModel& model, int batch, int threads, const Options& opt, std::mt19937& rng) {
  const std::string base = "/tmp/orva_peer_" + std::string(model.name) + std::to_string(getpid());
  const std::string ocfg = base + ".orva.cfg", dcfg = base + ".darknet.cfg", weights = base + ".weights";
  write_text(ocfg, orva_cfg(model, batch));
  write_text(dcfg, darknet_cfg(model, batch));
  write_weights(model, weights, rng);

  std::vector<float> input((size_t)batch * model.c * model.h * model.w);
  std::uniform_real_distribution<float> pixel(0.f, 1.f);
  for (float& v : input) v = pixel(rng);

  ORVA::Network net(ORVA::TEST, batch, -1);
  if (net.load(ocfg.c_str(), weights.c_str()) != 0) {
    fprintf(stderr, "%s: the host backend did not load the description\n", model.name);
    return false;
  }
  cv::dnn::Net peer = cv::dnn::readNetFromDarknet(dcfg, weights);
  peer.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  peer.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  remove(ocfg.c_str());
  remove(dcfg.c_str());
  remove(weights.c_str());

  const int dims[4] = {batch, model.c, model.h, model.w};
  cv::Mat blob(4, dims, CV_32F, input.data());
  tbb::task_arena arena(threads);
  cv::setNumThreads(threads);

  float* host_out = nullptr;
  cv::Mat peer_out;
  auto host_pass = [&] { arena.execute([&] { host_out = net.predict(input.data(), batch); }); };
  auto peer_pass = [&] {
    peer.setInput(blob);
    peer_out = peer.forward();
  };
  for (int i = 0; i < opt.warmup; ++i) {
    host_pass();
    peer_pass();
  }
  std::vector<double> host_ms, peer_ms;
  for (int i = 0; i < opt.passes; ++i) {
    host_ms.push_back(time_ms(host_pass));
    peer_ms.push_back(time_ms(peer_pass));
  }

  const size_t outputs = (size_t)net.getOutputs() * batch;
  if (peer_out.total() != outputs || !peer_out.isContinuous()) {
    fprintf(stderr, "%s: output sizes differ (host %zu, OpenCV %zu)\n", model.name, outputs, peer_out.total());
    return false;
  }
  const double diff = relative_l2(host_out, peer_out.ptr<float>(), outputs);
  const Stats h = stats(host_ms), p = stats(peer_ms);
  const bool ok = diff < 1e-2;
  printf("%-12s %5d %7d %9.2f %9.2f %9.2f %9.2f %7.2f %10.2e%s\n", model.name, batch, threads, h.min_ms, h.median_ms,
         p.min_ms, p.median_ms, h.median_ms / p.median_ms, diff, ok ? "" : "  OUTPUTS DIFFER");
  fflush(stdout);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string key = argv[i];
    const char* value = argv[i + 1];
    if (key == "--passes") opt.passes = std::max(1, atoi(value));
    else if (key == "--warmup") opt.warmup = std::max(0, atoi(value));
    else if (key == "--network") opt.network = value;
    else if (key == "--batch") opt.batch = atoi(value);
    else if (key == "--threads") opt.threads = atoi(value);
    else {
      fprintf(stderr, "usage: %s [--passes N] [--warmup N] [--network NAME] [--batch B] [--threads T]\n", argv[0]);
      return 2;
    }
  }
  ORVA::setMsgLevel(WARNING);
  std::mt19937 rng(12345);
  printf("%-12s %5s %7s %9s %9s %9s %9s %7s %10s\n", "network", "batch", "threads", "host min", "host med",
         "cv min", "cv med", "ratio", "rel L2");
  bool ok = true;
  for (const PeerModel& model : networks()) {
    if (!opt.network.empty() && opt.network != model.name) continue;
    for (int batch : {1, 4}) {
      if (opt.batch && batch != opt.batch) continue;
      for (int threads : {1, 2}) {
        if (opt.threads && threads != opt.threads) continue;
        ok = run_row(model, batch, threads, opt, rng) && ok;
      }
    }
  }
  return ok ? 0 : 1;
}
