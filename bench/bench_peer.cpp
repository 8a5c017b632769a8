// Side-by-side inference time of the host backend and OpenCV DNN (its darknet-dialect
// reader, CPU target) on the same networks, the same random weights and the same input.
// One weights-only file serves both: it has the darknet layout.
//
// Per network, batch (1, 4) and thread count (1, 2): min and median milliseconds of each over
// the timed passes (the two engines alternate pass by pass, so both see the same machine
// load), the ratio host / OpenCV of the medians, and the relative L2 difference of the
// outputs.
//
//   bench_peer [--passes N] [--warmup N] [--network NAME] [--batch B] [--threads T] [--face-model FILE]
//
// The face detector takes the weights of its model file (default models/face.orva, made by
// scripts/run.sh) when it is there, random ones otherwise.
#include <tbb/task_arena.h>
#include <sys/stat.h>
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

#include "darknet.h"
#include "layer/yolo_layer.h"
#include "orva/orva.h"
#include "yolo_families.h"

namespace {

// One layer, written in both description dialects. A convolution without activation
// (nullptr) is "linear" for OpenCV; the host backend then skips the bias step, so such a
// layer's biases are written as zeros.
struct LayerSpec {
  enum Kind { kConv, kMaxPool } kind;
  int filters, size, stride;
  bool bn;
  const char* activation;
  bool depthwise = false;  // one group per channel, filters = channels
  bool border = true;      // size / 2 zeros around the image, else none
};

LayerSpec conv(int filters, int size, int stride, bool bn = true, const char* act = "leaky") {
  return {LayerSpec::kConv, filters, size, stride, bn, act};
}
LayerSpec maxpool(int size, int stride) { return {LayerSpec::kMaxPool, 0, size, stride, false, nullptr}; }
LayerSpec depthwise(int channels) {
  LayerSpec l = conv(channels, 3, 1, false, nullptr);
  l.depthwise = true;
  return l;
}
LayerSpec unpadded(LayerSpec l) {
  l.border = false;
  return l;
}

struct PeerModel {
  const char* name;
  int w, h, c;
  std::vector<LayerSpec> layers;
  // A model file whose weights replace the random ones when it exists (same layers in the
  // same order; a head without weights may follow them).
  std::string weights_from;
  // A network written in the dialect (bench/yolo_families.h) instead of the layer list: both
  // engines run it whole, heads included, and the top head's decoded rows are compared.
  std::string (*darknet)(int w, int h) = nullptr;
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
      // The face detector of the detect program (orva convert --faceapi) up to its last
      // convolution: the region head decodes differently in the two engines, so the raw
      // 13 x 13 x 30 map is compared. Depthwise stages are grouped convolutions with one group
      // per channel; 0.42 GFLOP per 418 x 418 image.
      {"face",
       418,
       418,
       3,
       {unpadded(conv(16, 3, 1, false)), maxpool(2, 2), depthwise(16), conv(32, 1, 1, false), maxpool(2, 2),
        depthwise(32), conv(64, 1, 1, false), maxpool(2, 2), depthwise(64), conv(128, 1, 1, false), maxpool(2, 2),
        depthwise(128), conv(256, 1, 1, false), maxpool(2, 2), depthwise(256), conv(512, 1, 1, false), maxpool(2, 1),
        conv(30, 1, 1, false, "linear")},
       "models/face.orva"},
      // YOLOv4-tiny: grouped routes, stride-1 pools, upsampling and two yolo heads; 80 classes.
      {"yolov4-tiny", 416, 416, 3, {}, "", yolo_families::tiny_v4},
  };
}

std::string orva_cfg(const PeerModel& n, int batch) {
  std::string s = "[network]\nwidth=" + std::to_string(n.w) + "\nheight=" + std::to_string(n.h) +
                  "\nchannels=" + std::to_string(n.c) + "\nbatch=" + std::to_string(batch) + "\n";
  for (const LayerSpec& l : n.layers) {
    if (l.kind == LayerSpec::kConv)
      s += "[convolution]\nfilters=" + std::to_string(l.filters) + "\nsize=" + std::to_string(l.size) +
           "\nstride=" + std::to_string(l.stride) + "\nbatch_normalize=" + (l.bn ? "1" : "0") +
           (l.activation ? "\nactivation=" + std::string(l.activation) : std::string()) +
           (l.depthwise ? "\ngroups=" + std::to_string(l.filters) : std::string()) +
           (l.border ? "" : "\npad=0") + "\n";
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
           "\nstride=" + std::to_string(l.stride) + "\npad=" + (l.border ? "1" : "0") +
           "\nbatch_normalize=" + (l.bn ? "1" : "0") + "\nactivation=" + (l.activation ? l.activation : "linear") +
           (l.depthwise ? "\ngroups=" + std::to_string(l.filters) : std::string()) + "\n";
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
    const int k = (l.depthwise ? 1 : channels) * l.size * l.size;
    if (l.activation)
      uniform(l.filters, -0.1f, 0.1f);
    else
      data.insert(data.end(), l.filters, 0.f);
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

// Floats of the weights-only file after its header.
size_t weight_count(const PeerModel& n) {
  size_t count = 0;
  int channels = n.c;
  for (const LayerSpec& l : n.layers) {
    if (l.kind != LayerSpec::kConv) continue;
    count += (size_t)l.filters * ((l.bn ? 4 : 1) + (l.depthwise ? 1 : channels) * l.size * l.size);
    channels = l.filters;
  }
  return count;
}

// The weights of a model file written as a weights-only file. The file must hold exactly the
// model's convolutions, else the two descriptions would not be the network it came from.
bool copy_weights(const PeerModel& n, const std::string& path) {
  try {
    ORVA::Network source(ORVA::TEST, 1, -1);
    source.load(n.weights_from.c_str());
    source.save(path.c_str(), false);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: cannot take the weights of %s: %s\n", n.name, n.weights_from.c_str(), e.what());
    return false;
  }
  struct stat st;
  const size_t want = 20 + 4 * weight_count(n);
  if (stat(path.c_str(), &st) != 0 || (size_t)st.st_size != want) {
    fprintf(stderr, "%s: %s holds %lld bytes of weights, the network takes %zu\n", n.name, n.weights_from.c_str(),
            (long long)st.st_size, want);
    return false;
  }
  return true;
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
  std::string face_model = "models/face.orva";
};

template <typename F>
double time_ms(F f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// A dialect network: converted through the importer to a model file for the host, the
// description and weights file as they are for OpenCV.
bool load_darknet(const PeerModel& model, const std::string& base, ORVA::Network& net, cv::dnn::Net& peer,
                  std::mt19937& rng) {
  const std::string dcfg = base + ".darknet.cfg", weights = base + ".weights", file = base + ".orva";
  write_text(dcfg, model.darknet(model.w, model.h));
  try {
    const auto sections = orvacli::readDarknetCfg(dcfg);
    const auto shapes = orvacli::darknetToEngine(sections, dcfg, nullptr, "").shapes;
    const std::vector<unsigned char> bytes =
        yolo_families::weights_file(yolo_families::random_weights(sections, shapes, rng));
    FILE* f = fopen(weights.c_str(), "wb");
    if (!f || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) throw std::runtime_error("cannot write " + weights);
    fclose(f);
    orvacli::writeModel(orvacli::darknetToEngine(sections, dcfg, &bytes, weights), file);
    net.load(file.c_str());
    peer = cv::dnn::readNetFromDarknet(dcfg, weights);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: %s\n", model.name, e.what());
    return false;
  }
  remove(dcfg.c_str());
  remove(weights.c_str());
  remove(file.c_str());
  return true;
}

// The top yolo head's rows (box and objectness) of both engines as two flat arrays.
void yolo_rows(ORVA::Network& net, const float* host_out, const cv::Mat& peer_out, int batch, std::vector<float>& a,
               std::vector<float>& b) {
  auto* y = static_cast<ORVA::YoloLayer*>(net.getOutputLayer());
  const int W = y->_in_w, H = y->_in_h, A = y->_anchors, rows = W * H * A;
  for (int n = 0; n < batch; ++n)
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        for (int k = 0; k < A; ++k) {
          const float* out = host_out + (size_t)n * y->_outputs;
          const ORVA::BBox box = y->decode(out, k, i, j);
          const float mine[5] = {box.x, box.y, box.w, box.h, out[y->_entry_index(0, k, j * W + i, 4)]};
          const float* r = peer_out.ptr<float>() + ((size_t)n * rows + (j * W + i) * A + k) * (5 + y->_classes);
          a.insert(a.end(), mine, mine + 5);
          b.insert(b.end(), r, r + 5);
        }
}

// Model weights (a file copied once per network) or fresh random ones for each row.
bool run_row(const PeerModel& model, const std::string& model_weights, int batch, int threads, const Options& opt,
             std::mt19937& rng) {
  const std::string base = "/tmp/orva_peer_" + std::string(model.name) + std::to_string(getpid());
  const std::string ocfg = base + ".orva.cfg", dcfg = base + ".darknet.cfg";
  const std::string weights = model_weights.empty() ? base + ".weights" : model_weights;
  if (!model.darknet) {
    write_text(ocfg, orva_cfg(model, batch));
    write_text(dcfg, darknet_cfg(model, batch));
    if (model_weights.empty()) write_weights(model, weights, rng);
  }

  std::vector<float> input((size_t)batch * model.c * model.h * model.w);
  std::uniform_real_distribution<float> pixel(0.f, 1.f);
  for (float& v : input) v = pixel(rng);

  ORVA::Network net(ORVA::TEST, batch, -1);
  cv::dnn::Net peer;
  if (model.darknet) {
    if (!load_darknet(model, base, net, peer, rng)) return false;
  } else {
    if (net.load(ocfg.c_str(), weights.c_str()) != 0) {
      fprintf(stderr, "%s: the host backend did not load the description\n", model.name);
      return false;
    }
    peer = cv::dnn::readNetFromDarknet(dcfg, weights);
    remove(ocfg.c_str());
    remove(dcfg.c_str());
    if (model_weights.empty()) remove(weights.c_str());
  }
  peer.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  peer.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);

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

  double diff;
  if (model.darknet) {
    const auto* y = net.getOutputLayer();
    const size_t want = (size_t)batch * y->_outputs;  // rows x (5 + classes) per item
    if (peer_out.total() != want || !peer_out.isContinuous()) {
      fprintf(stderr, "%s: OpenCV gives %zu values for the top head, the host %zu\n", model.name, peer_out.total(), want);
      return false;
    }
    std::vector<float> a, b;
    yolo_rows(net, host_out, peer_out, batch, a, b);
    diff = relative_l2(a.data(), b.data(), a.size());
  } else {
    const size_t outputs = (size_t)net.getOutputs() * batch;
    if (peer_out.total() != outputs || !peer_out.isContinuous()) {
      fprintf(stderr, "%s: output sizes differ (host %zu, OpenCV %zu)\n", model.name, outputs, peer_out.total());
      return false;
    }
    diff = relative_l2(host_out, peer_out.ptr<float>(), outputs);
  }
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
    else if (key == "--face-model") opt.face_model = value;
    else {
      fprintf(stderr, "usage: %s [--passes N] [--warmup N] [--network NAME] [--batch B] [--threads T] [--face-model FILE]\n",
              argv[0]);
      return 2;
    }
  }
  ORVA::setMsgLevel(WARNING);
  std::mt19937 rng(12345);
  std::vector<PeerModel> models;
  std::vector<std::string> model_weights;
  bool ok = true;
  for (PeerModel& model : networks()) {
    if (!opt.network.empty() && opt.network != model.name) continue;
    if (!model.weights_from.empty()) model.weights_from = opt.face_model;
    std::string copied;
    if (!model.weights_from.empty() && access(model.weights_from.c_str(), R_OK) == 0) {
      copied = "/tmp/orva_peer_" + std::string(model.name) + std::to_string(getpid()) + ".model.weights";
      if (!copy_weights(model, copied)) {
        ok = false;
        continue;
      }
      printf("# %s: weights of %s\n", model.name, model.weights_from.c_str());
    } else if (!model.weights_from.empty()) {
      printf("# %s: random weights (%s not found)\n", model.name, model.weights_from.c_str());
    }
    models.push_back(model);
    model_weights.push_back(copied);
  }
  printf("%-12s %5s %7s %9s %9s %9s %9s %7s %10s\n", "network", "batch", "threads", "host min", "host med",
         "cv min", "cv med", "ratio", "rel L2");
  for (size_t m = 0; m < models.size(); ++m) {
    for (int batch : {1, 4}) {
      if (opt.batch && batch != opt.batch) continue;
      for (int threads : {1, 2}) {
        if (opt.threads && threads != opt.threads) continue;
        ok = run_row(models[m], model_weights[m], batch, threads, opt, rng) && ok;
      }
    }
    if (!model_weights[m].empty()) remove(model_weights[m].c_str());
  }
  return ok ? 0 : 1;
}
