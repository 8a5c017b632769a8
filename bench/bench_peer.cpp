// Side-by-side inference time of the host backend, OpenCV DNN (its darknet-dialect reader,
// CPU target) and ONNX Runtime (onnxruntime-node, CPU provider) on the same networks, the same
// weights and the same input.
//
// Each engine runs in its own process, started once per row; the parent asks each for one
// pass in turn, round by round (the order rotating), so all three see the same machine load
// and none shares a thread pool or caches with another. Each pass is asked for --settle
// milliseconds (default 50) after the previous answer: thread pools that keep spinning after
// a pass (ONNX Runtime's does by default) would otherwise take cores from the next engine,
// which at two threads on two cores doubled the host's median. Per network, batch (1, 4) and thread
// count (1, 2): min and median milliseconds of each, the ratios host / OpenCV and host /
// ONNX Runtime of the medians, and each engine's relative L2 distance to a float64 reference
// of the network as the engine holds it (weights in half, normalisation folded, input
// rounded to half). A distance above 1e-2 is flagged and makes the exit status 1.
// --int8 runs the host's convolutions on their 8-bit paths, each with the largest input
// magnitude of the reference as its input threshold; its distance is flagged from 1e-1.
// --keep leaves each network's folder (descriptions, host8_B.cfg with the thresholds,
// net.weights) in place and prints its path.
//
//   bench_peer [--passes N] [--warmup N] [--network NAME] [--batch B] [--threads T] [--int8]
//              [--face-model FILE] [--people-model FILE] [--settle MS] [--no-ort] [--keep]
//
// The ONNX Runtime column needs bench/peer_setup.sh (python3-onnx, onnxruntime-node under
// bench/node_modules); without it the column is left out. The networks go to ONNX through
// bench/orva_to_onnx.py. The face detector takes the weights of its model file (default
// models/face.orva, made by scripts/run.sh) when it is there, random ones otherwise.
// YOLOv4-tiny runs whole in the host and OpenCV (the host's two yolo heads take about 2 % of
// its pass); its ONNX model stops at the heads' inputs, and the host and ONNX Runtime are
// compared there with the reference, OpenCV's decoded top head with the host's. The people
// detector (--people-model, the TF.js graph of scripts/run.sh, converted by the engine's
// importer) runs without its centernet head in the host and ONNX Runtime; OpenCV has no form
// of it.
//
// Internal: bench_peer --worker host|opencv DIR BATCH THREADS serves one engine.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
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
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "darknet.h"
#include "tfjs.h"
#include "layer/convolution_layer.h"
#include "layer/activation_layer.h"
#include "layer/attention_layer.h"
#include "layer/centernet_layer.h"
#include "layer/maxpool_layer.h"
#include "layer/resize_layer.h"
#include "layer/route_layer.h"
#include "layer/shortcut_layer.h"
#include "layer/upsizenn_layer.h"
#include "layer/yolo_layer.h"
#include "kernels/tensor.h"
#include "orva/float16.h"
#include "orva/orva.h"
#include "yolo_families.h"

#ifndef ORVA_BENCH_DIR
#define ORVA_BENCH_DIR "bench"
#endif

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
  // A TF.js graph (weights_from) converted by the engine's importer: the host runs the
  // result, ONNX Runtime the exported description up to the head's input; OpenCV has no form.
  bool tfjs = false;
  std::shared_ptr<orvacli::ConvertedModel> converted;
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
      // The people detector of scripts/run.sh: CenterNet from TF.js, its own weights; the
      // input size is the graph's.
      {"people", 0, 0, 3, {}, "models/human-models/centernet.json", nullptr, true},
  };
}

// With input thresholds (one per convolution, `quant_thresh`), the same network for the
// host's 8-bit path.
std::string orva_cfg(const PeerModel& n, int batch, const std::vector<float>* iq = nullptr) {
  size_t conv_index = 0;
  std::string s = "[network]\nwidth=" + std::to_string(n.w) + "\nheight=" + std::to_string(n.h) +
                  "\nchannels=" + std::to_string(n.c) + "\nbatch=" + std::to_string(batch) + "\n";
  for (const LayerSpec& l : n.layers) {
    if (l.kind == LayerSpec::kConv)
      s += "[convolution]\nfilters=" + std::to_string(l.filters) + "\nsize=" + std::to_string(l.size) +
           "\nstride=" + std::to_string(l.stride) + "\nbatch_normalize=" + (l.bn ? "1" : "0") +
           (l.activation ? "\nactivation=" + std::string(l.activation) : std::string()) +
           (l.depthwise ? "\ngroups=" + std::to_string(l.filters) : std::string()) +
           (l.border ? "" : "\npad=0") + "\n";
    if (l.kind == LayerSpec::kConv && iq) s += "quant_thresh=" + std::to_string(iq->at(conv_index++)) + "\n";
    if (l.kind != LayerSpec::kConv)
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

template <typename A, typename B>
double relative_l2(const A* a, const B* b, size_t n) {
  double diff = 0, ref = 0;
  for (size_t i = 0; i < n; ++i) {
    const double d = (double)a[i] - (double)b[i];
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
  std::string people_model = "models/human-models/centernet.json";
  bool ort = true;
  int settle_ms = 50;
  bool int8 = false;  // the host runs the convolutions' 8-bit paths
  bool keep = false;  // scratch folders left in place (for orva bench on the same files)
};

void fail(const std::string& what) {
  fprintf(stderr, "bench_peer: %s\n", what.c_str());
  exit(1);
}

std::vector<float> read_floats(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) fail("cannot read " + path);
  std::vector<float> v;
  float buf[4096];
  size_t n;
  while ((n = fread(buf, 4, 4096, f)) > 0) v.insert(v.end(), buf, buf + n);
  fclose(f);
  return v;
}

void write_floats(const std::string& path, const float* v, size_t n) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f || fwrite(v, 4, n, f) != n) fail("cannot write " + path);
  fclose(f);
}

bool exists(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

// The files of one network in its scratch folder: host<B>.cfg and darknet<B>.cfg per batch,
// net.weights, net.orva (dialect networks: the converted model), input.f32 (4 images), net.onnx.
std::string host_cfg(const std::string& dir, int batch) { return dir + "/host" + std::to_string(batch) + ".cfg"; }
std::string peer_cfg(const std::string& dir, int batch) { return dir + "/darknet" + std::to_string(batch) + ".cfg"; }
std::string host8_cfg(const std::string& dir, int batch) { return dir + "/host8_" + std::to_string(batch) + ".cfg"; }

// ---- float64 reference of the network as the engine holds it ----

// The activations the reference knows, by id: none, linear, leaky (half slope), logistic,
// relu, hard-swish and hard-sigmoid.
bool known_activation(int id) { return id == -1 || id == 3 || id == 7 || id == 0 || id == 1 || id == 17 || id == 18; }
double activate(int id, double v) {
  static const double kLeaky = half2float_cpu(float2half_cpu(0.1f));
  const double gate = std::min(std::max(v + 3, 0.0), 6.0) / 6;
  switch (id) {
    case 7: return v > 0 ? v : v * kLeaky;
    case 0: return 1 / (1 + std::exp(-v));
    case 1: return std::max(v, 0.0);
    case 17: return v * gate;
    case 18: return gate;
    default: return v;
  }
}

// Layer by layer from the engine's own loaded weights (half, normalisation folded): the
// layers and activations the bench networks use; a network with yolo or centernet heads
// gives its heads' inputs, item by item. Empty when the network has another layer. With iq,
// each convolution's input threshold for the 8-bit path: its largest input magnitude,
// negative (signed bytes) where an input is negative.
std::vector<double> reference(ORVA::Network& net, const std::vector<float>& input, int batch,
                              std::vector<float>* iq = nullptr) {
  std::vector<double> x(input.size());
  for (size_t i = 0; i < x.size(); ++i) x[i] = half2float_cpu(float2half_cpu(input[i]));
  std::vector<std::vector<double>> kept(net.getLayerCount());  // every layer's output, for routes
  std::vector<int> heads;                                       // the layers feeding the heads
  for (int li = 0; li < net.getLayerCount(); ++li) {
    ORVA::Layer* l = net.getLayer(li);
    const int iw = l->_in_w, ih = l->_in_h, ic = l->_in_c, ow = l->_out_w, oh = l->_out_h, oc = l->_out_c;
    std::vector<double> y((size_t)batch * oc * oh * ow);
    if (dynamic_cast<ORVA::YoloLayer*>(l) || dynamic_cast<ORVA::CenternetLayer*>(l)) {  // compared at their inputs
      if (li == 0) return {};
      heads.push_back(li - 1);
      y = x;
    } else if (auto* r = dynamic_cast<ORVA::RouteLayer*>(l)) {
      size_t at = 0;
      for (int n = 0; n < batch; ++n)
        for (int s = 0; s < r->_ln; ++s) {
          const std::vector<double>& src = kept[r->_lindex[s]];
          const size_t part = (size_t)r->_lsize[s] / r->_groups;  // one group of one item
          const double* from = &src[(size_t)n * r->_lsize[s] + (size_t)r->_group_id * part];
          std::copy(from, from + part, &y[at]);
          at += part;
        }
    } else if (auto* a = dynamic_cast<ORVA::ActivationLayer*>(l)) {
      if (!known_activation(a->_acttype)) return {};
      for (size_t i = 0; i < y.size(); ++i) y[i] = activate(a->_acttype, x[i]);
    } else if (auto* sc = dynamic_cast<ORVA::ShortcutLayer*>(l)) {
      if (sc->_from < 0 || kept[sc->_from].size() != x.size() || !known_activation(sc->_acttype)) return {};
      for (size_t i = 0; i < y.size(); ++i)
        y[i] = activate(sc->_acttype, (double)sc->_alpha * x[i] + (double)sc->_beta * kept[sc->_from][i]);
    } else if (auto* at = dynamic_cast<ORVA::AttentionLayer*>(l)) {  // one factor per channel
      const std::vector<double>& features = kept[at->_from];
      if (features.size() != y.size() || x.size() != (size_t)batch * oc) return {};
      for (size_t i = 0; i < y.size(); ++i) y[i] = features[i] * x[i / ((size_t)oh * ow)];
    } else if (auto* rs = dynamic_cast<ORVA::ResizeLayer*>(l)) {  // bilinear
      auto source = [&](int d, int n, int m, int& lo, int& hi, double& frac) {
        const double v = rs->_rule == kResizeAlignCorners ? (m > 1 ? (double)d * (n - 1) / (m - 1) : 0.0)
                         : rs->_rule == kResizeHalfPixel  ? (d + 0.5) * n / m - 0.5
                                                          : (double)d * n / m;
        const double f = std::floor(v);
        lo = std::max((int)f, 0), hi = std::min((int)std::ceil(v), n - 1), frac = v - f;
      };
      for (int nc = 0; nc < batch * oc; ++nc)
        for (int oy = 0; oy < oh; ++oy) {
          int y0, y1;
          double ty;
          source(oy, ih, oh, y0, y1, ty);
          for (int ox = 0; ox < ow; ++ox) {
            int x0, x1;
            double tx;
            source(ox, iw, ow, x0, x1, tx);
            const double* in = &x[(size_t)nc * ih * iw];
            const double top = in[y0 * iw + x0] + (in[y0 * iw + x1] - in[y0 * iw + x0]) * tx;
            const double bottom = in[y1 * iw + x0] + (in[y1 * iw + x1] - in[y1 * iw + x0]) * tx;
            y[((size_t)nc * oh + oy) * ow + ox] = top + (bottom - top) * ty;
          }
        }
    } else if (auto* u = dynamic_cast<ORVA::UpsizennLayer*>(l)) {
      for (int nc = 0; nc < batch * oc; ++nc)
        for (int oy = 0; oy < oh; ++oy)
          for (int ox = 0; ox < ow; ++ox)
            y[((size_t)nc * oh + oy) * ow + ox] = x[((size_t)nc * ih + oy / u->_stride) * iw + ox / u->_stride];
    } else if (auto* c = dynamic_cast<ORVA::ConvolutionLayer*>(l)) {
      if (iq) {
        double lo = 0, hi = 0;
        for (double v : x) lo = std::min(lo, v), hi = std::max(hi, std::fabs(v));
        iq->push_back(lo < 0 ? -(float)hi : (float)hi);
      }
      if (!known_activation(c->_acttype)) return {};
      std::vector<float> w(c->_weights), b(c->_kn);
      half2float_cpu(w.data(), c->_weight, w.size());
      half2float_cpu(b.data(), c->_bias, b.size());
      const int cg = ic / c->_groups, fg = c->_kn / c->_groups, s = c->_stride, p = c->_pad, d = c->_dilation;
      const int k = c->_size;
      tbb::parallel_for(0, batch * oc, [&](int nf) {
        const int n = nf / oc, f = nf % oc;
        double* out = &y[(size_t)nf * oh * ow];
        for (int ci = 0; ci < cg; ++ci) {
          const double* in = &x[((size_t)n * ic + (size_t)(f / fg) * cg + ci) * ih * iw];
          for (int ky = 0; ky < k; ++ky)
            for (int kx = 0; kx < k; ++kx) {
              const double wv = w[(((size_t)f * cg + ci) * k + ky) * k + kx];
              for (int oy = 0; oy < oh; ++oy) {
                const int iy = oy * s - p + ky * d;
                if (iy < 0 || iy >= ih) continue;
                const double* row = in + (size_t)iy * iw;
                double* o = out + (size_t)oy * ow;
                for (int ox = 0; ox < ow; ++ox) {
                  const int ix = ox * s - p + kx * d;
                  if (ix >= 0 && ix < iw) o[ox] += wv * row[ix];
                }
              }
            }
        }
        if (c->_acttype == -1) return;  // no activation: the engine adds no bias either
        for (int i = 0; i < oh * ow; ++i) {
          out[i] = activate(c->_acttype, out[i] + b[f]);
        }
      });
    } else if (auto* m = dynamic_cast<ORVA::MaxpoolLayer*>(l)) {
      for (int nc = 0; nc < batch * oc; ++nc)
        for (int oy = 0; oy < oh; ++oy)
          for (int ox = 0; ox < ow; ++ox) {
            double best = -INFINITY;
            for (int ky = 0; ky < m->_size; ++ky)
              for (int kx = 0; kx < m->_size; ++kx) {
                const int iy = oy * m->_stride - m->_pad + ky, ix = ox * m->_stride - m->_pad + kx;
                if (iy >= 0 && iy < ih && ix >= 0 && ix < iw) best = std::max(best, x[((size_t)nc * ih + iy) * iw + ix]);
              }
            y[((size_t)nc * oh + oy) * ow + ox] = best;
          }
    } else {
      return {};
    }
    x.swap(y);
    kept[li] = x;
  }
  if (heads.empty()) return x;
  // item by item, the heads' inputs one after the other (as the engines' outputs are saved)
  std::vector<double> out;
  for (int n = 0; n < batch; ++n)
    for (int h : heads) {
      const size_t per = kept[h].size() / batch;
      out.insert(out.end(), kept[h].begin() + n * per, kept[h].begin() + (n + 1) * per);
    }
  return out;
}

// ---- the engines' processes ----

template <typename F>
double time_ms(F f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// The top yolo head's rows (box and objectness) of the host's output, row-major as OpenCV
// gives them.
std::vector<float> yolo_rows(ORVA::Network& net, const float* host_out, int batch) {
  auto* y = static_cast<ORVA::YoloLayer*>(net.getOutputLayer());
  const int W = y->_in_w, H = y->_in_h, A = y->_anchors;
  std::vector<float> rows;
  for (int n = 0; n < batch; ++n)
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        for (int k = 0; k < A; ++k) {
          const float* out = host_out + (size_t)n * y->_outputs;
          const ORVA::BBox box = y->decode(out, k, i, j);
          const float mine[5] = {box.x, box.y, box.w, box.h, out[y->_entry_index(0, k, j * W + i, 4)]};
          rows.insert(rows.end(), mine, mine + 5);
        }
  return rows;
}

// One engine serving the parent: "ready" once loaded, then per line "run" (answers the
// pass's milliseconds), "save PATH" (answers the count of floats written) or "quit".
int worker(const std::string& engine, const std::string& dir, int batch, int threads) {
  ORVA::setMsgLevel(WARNING);
  // Answers go to the parent on the original standard output; anything the engines print
  // goes to standard error.
  FILE* answer = fdopen(dup(1), "w");
  if (!answer || dup2(2, 1) < 0) fail("cannot set up the answer stream");
  std::vector<float> input = read_floats(dir + "/input.f32");
  std::vector<float> out, rows;  // rows: the host's decoded top head, for OpenCV's
  std::function<void()> pass;
  std::unique_ptr<ORVA::Network> net;
  cv::dnn::Net peer;
  cv::Mat blob;
  tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
  tbb::task_arena arena(threads);
  const bool dialect = exists(dir + "/net.orva");
  if (engine == "host" || engine == "host8") {
    const bool int8 = engine == "host8";
    const std::string cfg = int8 ? host8_cfg(dir, batch) : host_cfg(dir, batch);
    net.reset(new ORVA::Network(ORVA::TEST, batch, -1));
    if (dialect)
      net->load((dir + "/net.orva").c_str(), int8);
    else if (net->load(cfg.c_str(), (dir + "/net.weights").c_str(), int8) != 0)
      fail("the host backend did not load " + cfg);
    std::vector<ORVA::Layer*> heads;  // the layers feeding the yolo or centernet heads
    for (int i = 1; dialect && i < net->getLayerCount(); ++i)
      if (dynamic_cast<ORVA::YoloLayer*>(net->getLayer(i)) || dynamic_cast<ORVA::CenternetLayer*>(net->getLayer(i)))
        heads.push_back(net->getLayer(i - 1));
    pass = [&, heads] {
      float* o = nullptr;
      arena.execute([&] { o = net->predict(input.data(), batch); });
      if (!dialect || heads.empty()) {
        out.assign(o, o + (size_t)net->getOutputs() * batch);
        return;
      }
      if (dynamic_cast<ORVA::YoloLayer*>(net->getOutputLayer())) rows = yolo_rows(*net, o, batch);
      out.clear();
      for (int n = 0; n < batch; ++n)
        for (ORVA::Layer* h : heads) {
          const size_t per = h->_outputs;
          out.resize(out.size() + per);
          half2float_cpu(&out[out.size() - per], h->_output + n * per, per);
        }
    };
  } else if (engine == "opencv") {
    peer = cv::dnn::readNetFromDarknet(peer_cfg(dir, batch), dir + "/net.weights");
    peer.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    peer.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    cv::setNumThreads(threads);
    pass = [&] {
      peer.setInput(blob);
      cv::Mat o = peer.forward();
      if (!o.isContinuous()) o = o.clone();
      if (dialect) {  // rows of 5 + classes values; box and objectness compared
        const int cols = o.size[o.dims - 1];
        out.clear();
        for (size_t r = 0; r < o.total() / cols; ++r) out.insert(out.end(), o.ptr<float>() + r * cols, o.ptr<float>() + r * cols + 5);
      } else {
        out.assign(o.ptr<float>(), o.ptr<float>() + o.total());
      }
    };
  } else {
    fail("unknown engine " + engine);
  }
  if (engine == "opencv") {
    FILE* f = fopen((dir + "/shape").c_str(), "r");
    int c = 0, h = 0, w = 0;
    if (!f || fscanf(f, "%d %d %d", &c, &h, &w) != 3) fail("cannot read " + dir + "/shape");
    fclose(f);
    const int dims[4] = {batch, c, h, w};
    blob = cv::Mat(4, dims, CV_32F, input.data());
  }
  fprintf(answer, "ready\n");
  fflush(answer);
  char line[4096];
  while (fgets(line, sizeof line, stdin)) {
    std::string cmd(line);
    while (!cmd.empty() && (cmd.back() == '\n' || cmd.back() == '\r')) cmd.pop_back();
    if (cmd == "run") {
      fprintf(answer, "%.4f\n", time_ms(pass));
    } else if (cmd.compare(0, 5, "save ") == 0) {
      write_floats(cmd.substr(5), out.data(), out.size());
      if (!rows.empty()) write_floats(cmd.substr(5) + ".rows", rows.data(), rows.size());
      fprintf(answer, "%zu\n", out.size());
    } else if (cmd == "quit") {
      break;
    } else {
      fprintf(answer, "error: unknown command %s\n", cmd.c_str());
    }
    fflush(answer);
  }
  return 0;
}

// A child process spoken to through its standard input and output.
class Child {
 public:
  Child(const std::string& name, std::vector<std::string> argv) : name_(name) {
    int to[2], from[2];
    if (pipe(to) != 0 || pipe(from) != 0) fail("pipe failed");
    pid_ = fork();
    if (pid_ < 0) fail("fork failed");
    if (pid_ == 0) {
      dup2(to[0], 0);
      dup2(from[1], 1);
      close(to[0]), close(to[1]), close(from[0]), close(from[1]);
      std::vector<char*> args;
      for (std::string& a : argv) args.push_back(&a[0]);
      args.push_back(nullptr);
      execvp(args[0], args.data());
      fprintf(stderr, "bench_peer: cannot start %s\n", args[0]);
      _exit(127);
    }
    close(to[0]), close(from[1]);
    in_ = fdopen(to[1], "w");
    out_ = fdopen(from[0], "r");
  }
  ~Child() {
    fputs("quit\n", in_);
    fclose(in_);
    fclose(out_);
    int status;
    waitpid(pid_, &status, 0);
  }
  // The next answer line; a missing or "error:" answer ends the benchmark.
  std::string read() {
    char line[4096];
    if (!fgets(line, sizeof line, out_)) fail(name_ + " ended without an answer");
    std::string s(line);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    if (s.compare(0, 6, "error:") == 0) fail(name_ + ": " + s);
    return s;
  }
  std::string ask(const std::string& cmd) {
    fprintf(in_, "%s\n", cmd.c_str());
    fflush(in_);
    return read();
  }
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  pid_t pid_;
  FILE* in_;
  FILE* out_;
};

std::string self_path() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) fail("cannot find this program's path");
  return std::string(buf, n);
}

bool ort_available(std::string& why) {
  if (system("/usr/bin/python3 -c 'import onnx' >/dev/null 2>&1") != 0) {
    why = "python3-onnx missing";
    return false;
  }
  if (!exists(std::string(ORVA_BENCH_DIR) + "/node_modules/onnxruntime-node/package.json")) {
    why = "onnxruntime-node not under " ORVA_BENCH_DIR "/node_modules";
    return false;
  }
  return true;
}

// One network's scratch folder: descriptions for both batches, weights, four input images,
// its ONNX model when asked, and the float64 reference of the four images.
struct Prepared {
  std::string dir;
  bool onnx = false;
  bool opencv = true;       // false where OpenCV reads no form of the network
  bool dialect = false;     // a converted network: the reference ends at its heads' inputs, OpenCV's rows at the host's
  std::vector<double> ref;  // batch 4, empty without one
  size_t per_image = 0;
};

// net.onnx in dir from an engine description and its weights-only file.
bool export_onnx(const PeerModel& model, const std::string& cfg, const std::string& weights, const std::string& dir) {
  const std::string cmd =
      "/usr/bin/python3 '" ORVA_BENCH_DIR "/orva_to_onnx.py' '" + cfg + "' '" + weights + "' '" + dir + "/net.onnx'";
  if (system(cmd.c_str()) == 0) return true;
  fprintf(stderr, "%s: no ONNX model (%s failed)\n", model.name, cmd.c_str());
  return false;
}

bool prepare(const PeerModel& model, const std::string& model_weights, bool want_onnx, bool int8, std::mt19937& rng,
             Prepared& p) {
  char tmpl[] = "/tmp/orva_peer_XXXXXX";
  if (!mkdtemp(tmpl)) fail("cannot make a scratch folder");
  p.dir = tmpl;
  const std::string weights = p.dir + "/net.weights";
  std::vector<float> input((size_t)4 * model.c * model.h * model.w);
  std::uniform_real_distribution<float> pixel(0.f, 1.f);
  for (float& v : input) v = pixel(rng);
  write_floats(p.dir + "/input.f32", input.data(), input.size());
  write_text(p.dir + "/shape", std::to_string(model.c) + " " + std::to_string(model.h) + " " + std::to_string(model.w));
  if (model.darknet || model.converted) {
    try {
      orvacli::ConvertedModel m;
      if (model.converted) {
        m = *model.converted;
        p.opencv = false;
      } else {
        std::string dcfg = peer_cfg(p.dir, 1);
        write_text(dcfg, model.darknet(model.w, model.h));
        write_text(peer_cfg(p.dir, 4), model.darknet(model.w, model.h));
        const auto sections = orvacli::readDarknetCfg(dcfg);
        const auto shapes = orvacli::darknetToEngine(sections, dcfg, nullptr, "").shapes;
        const std::vector<unsigned char> bytes =
            yolo_families::weights_file(yolo_families::random_weights(sections, shapes, rng));
        FILE* f = fopen(weights.c_str(), "wb");
        if (!f || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size())
          throw std::runtime_error("cannot write " + weights);
        fclose(f);
        m = orvacli::darknetToEngine(sections, dcfg, &bytes, weights);
      }
      orvacli::writeModel(m, p.dir + "/net.orva");
      // the engine's description and weights-only file of the same network, for the exporter
      write_text(p.dir + "/engine.cfg", m.cfg);
      const std::vector<unsigned char> records = orvacli::weightsOnlyFile(m);
      FILE* f = fopen((p.dir + "/engine.weights").c_str(), "wb");
      if (!f || fwrite(records.data(), 1, records.size(), f) != records.size())
        throw std::runtime_error("cannot write " + p.dir + "/engine.weights");
      fclose(f);
      ORVA::Network net(ORVA::TEST, 4, -1);
      net.load((p.dir + "/net.orva").c_str());
      p.ref = reference(net, input, 4);
      p.per_image = p.ref.size() / 4;
    } catch (const std::exception& e) {
      fprintf(stderr, "%s: %s\n", model.name, e.what());
      return false;
    }
    p.dialect = true;
    if (want_onnx) p.onnx = export_onnx(model, p.dir + "/engine.cfg", p.dir + "/engine.weights", p.dir);
    return true;
  }
  for (int b : {1, 4}) {
    write_text(host_cfg(p.dir, b), orva_cfg(model, b));
    write_text(peer_cfg(p.dir, b), darknet_cfg(model, b));
  }
  if (model_weights.empty()) {
    write_weights(model, weights, rng);
  } else if (system(("cp '" + model_weights + "' '" + weights + "'").c_str()) != 0) {
    fail("cannot copy " + model_weights);
  }
  if (want_onnx) p.onnx = export_onnx(model, host_cfg(p.dir, 4), weights, p.dir);
  ORVA::Network net(ORVA::TEST, 4, -1);
  if (net.load(host_cfg(p.dir, 4).c_str(), weights.c_str()) != 0) {
    fprintf(stderr, "%s: the host backend did not load the description\n", model.name);
    return false;
  }
  std::vector<float> iq;
  p.ref = reference(net, input, 4, &iq);
  p.per_image = p.ref.size() / 4;
  if (int8)
    for (int b : {1, 4}) write_text(host8_cfg(p.dir, b), orva_cfg(model, b, &iq));
  return true;
}

void cleanup(const Prepared& p) {
  if (!p.dir.empty()) system(("rm -rf '" + p.dir + "'").c_str());
}

void print_cell(double v, const char* fmt, int width) {
  if (std::isnan(v))
    printf(" %*s", width, "-");
  else
    printf(fmt, v);
}

bool run_row(const PeerModel& model, const Prepared& p, int batch, int threads, const Options& opt) {
  const std::string self = self_path(), b = std::to_string(batch), t = std::to_string(threads);
  // slots: host, OpenCV, ONNX Runtime; an engine without a form of the network is left empty
  std::vector<std::unique_ptr<Child>> engines(3);
  engines[0].reset(new Child("host", {self, "--worker", opt.int8 ? "host8" : "host", p.dir, b, t}));
  if (p.opencv) engines[1].reset(new Child("opencv", {self, "--worker", "opencv", p.dir, b, t}));
  if (p.onnx)
    engines[2].reset(new Child("ort", {"node", ORVA_BENCH_DIR "/ort_time.js", p.dir + "/net.onnx",
                                       p.dir + "/input.f32", b, std::to_string(model.c), std::to_string(model.h),
                                       std::to_string(model.w), t}));
  std::vector<size_t> present;
  for (size_t e = 0; e < engines.size(); ++e)
    if (engines[e]) {
      present.push_back(e);
      if (engines[e]->read() != "ready") fail(engines[e]->name() + " did not start");
    }
  std::vector<std::vector<double>> ms(engines.size());
  for (int r = 0; r < opt.warmup + opt.passes; ++r)
    for (size_t k = 0; k < present.size(); ++k) {
      const size_t e = present[(k + r) % present.size()];
      std::this_thread::sleep_for(std::chrono::milliseconds(opt.settle_ms));
      const double v = atof(engines[e]->ask("run").c_str());
      if (r >= opt.warmup) ms[e].push_back(v);
    }
  // distances: to the float64 reference where there is one, else host against OpenCV
  std::vector<std::vector<float>> outs(engines.size());
  std::vector<float> host_rows;
  for (size_t e : present) {
    const std::string path = p.dir + "/" + engines[e]->name() + ".out";
    engines[e]->ask("save " + path);
    outs[e] = read_floats(path);
    remove(path.c_str());
    if (p.dialect && p.opencv && e == 0) {
      host_rows = read_floats(path + ".rows");
      remove((path + ".rows").c_str());
    }
  }
  std::vector<double> dist(3, NAN);
  bool ok = true;
  for (size_t e : present) {
    if (p.dialect && e == 1) {  // decoded rows against the host's
      if (outs[e].size() != host_rows.size()) {
        fprintf(stderr, "%s: OpenCV gives %zu values, the host %zu\n", model.name, outs[e].size(), host_rows.size());
        return false;
      }
      dist[e] = relative_l2(outs[e].data(), host_rows.data(), host_rows.size());
    } else if (!p.ref.empty()) {
      const size_t n = p.per_image * batch;
      if (outs[e].size() != n) {
        fprintf(stderr, "%s: %s gives %zu values, the reference %zu\n", model.name, engines[e]->name().c_str(),
                outs[e].size(), n);
        return false;
      }
      dist[e] = relative_l2(outs[e].data(), p.ref.data(), n);
    } else if (e == 0 && engines[1]) {
      if (outs[0].size() != outs[1].size()) {
        fprintf(stderr, "%s: OpenCV gives %zu values, the host %zu\n", model.name, outs[1].size(), outs[0].size());
        return false;
      }
      dist[0] = relative_l2(outs[0].data(), outs[1].data(), outs[0].size());
    }
    // 8-bit inputs and weights are 1/254 and 1/127 of their ranges per layer.
    const double bound = opt.int8 && e == 0 ? 1e-1 : 1e-2;
    if (!std::isnan(dist[e]) && !(dist[e] < bound)) ok = false;
  }
  const double nan = NAN;
  std::vector<Stats> st;
  for (auto& m : ms) st.push_back(m.empty() ? Stats{nan, nan} : stats(m));
  printf("%-12s %5d %3d  %8.2f %8.2f ", model.name, batch, threads, st[0].min_ms, st[0].median_ms);
  for (int e : {1, 2}) {
    print_cell(st[e].min_ms, " %8.2f", 8);
    print_cell(st[e].median_ms, " %8.2f", 8);
  }
  printf(" ");
  for (int e : {1, 2}) print_cell(st[0].median_ms / st[e].median_ms, " %6.2f", 6);
  for (double d : dist) print_cell(d, " %9.2e", 9);
  printf("%s\n", ok ? "" : "  OUTPUTS DIFFER");
  fflush(stdout);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::string(argv[1]) == "--worker") return worker(argv[2], argv[3], atoi(argv[4]), atoi(argv[5]));
  Options opt;
  for (int i = 1; i < argc; ++i) {
    const std::string key = argv[i];
    if (key == "--no-ort") {
      opt.ort = false;
      continue;
    }
    if (key == "--int8") {
      opt.int8 = true;
      continue;
    }
    if (key == "--keep") {
      opt.keep = true;
      continue;
    }
    const char* value = i + 1 < argc ? argv[++i] : nullptr;
    if (!value) opt.passes = -1;  // a key without its value: usage
    else if (key == "--passes") opt.passes = std::max(1, atoi(value));
    else if (key == "--warmup") opt.warmup = std::max(0, atoi(value));
    else if (key == "--network") opt.network = value;
    else if (key == "--batch") opt.batch = atoi(value);
    else if (key == "--threads") opt.threads = atoi(value);
    else if (key == "--face-model") opt.face_model = value;
    else if (key == "--people-model") opt.people_model = value;
    else if (key == "--settle") opt.settle_ms = std::max(0, atoi(value));
    else opt.passes = -1;
    if (opt.passes < 0) {
      fprintf(stderr,
              "usage: %s [--passes N] [--warmup N] [--network NAME] [--batch B] [--threads T] [--face-model FILE] "
              "[--people-model FILE] [--settle MS] [--no-ort] [--int8] [--keep]\n",
              argv[0]);
      return 2;
    }
  }
  ORVA::setMsgLevel(WARNING);
  std::string why;
  if (opt.ort && !ort_available(why)) {
    printf("# ONNX Runtime left out: %s (run bench/peer_setup.sh)\n", why.c_str());
    opt.ort = false;
  }
  std::mt19937 rng(12345);
  bool ok = true;
  printf("%-12s %5s %3s  %8s %8s  %8s %8s %8s %8s  %6s %6s %9s %9s %9s\n", "network", "batch", "thr", "host min",
         "host med", "cv min", "cv med", "ort min", "ort med", "h/cv", "h/ort", "L2 host", "L2 cv", "L2 ort");
  for (PeerModel& model : networks()) {
    if (!opt.network.empty() && opt.network != model.name) continue;
    if (model.tfjs) {
      model.weights_from = opt.people_model;
      if (!exists(model.weights_from)) {
        printf("# %s: left out (%s not found; scripts/setup.sh fetches it)\n", model.name, model.weights_from.c_str());
        continue;
      }
      try {
        model.converted = std::make_shared<orvacli::ConvertedModel>(orvacli::tfjsToEngine(model.weights_from));
        // Without its centernet head (the logistic over the heat maps and, outside the pass, the
        // peak picking): every engine runs up to the head's input.
        orvacli::ConvertedModel& m = *model.converted;
        const size_t head = m.cfg.rfind("[centernet]");
        if (head != std::string::npos && m.cfg.find('[', head + 1) == std::string::npos && !m.shapes.empty()) {
          m.cfg.erase(head);
          m.shapes.pop_back();
          if (m.origin.size() > m.shapes.size()) m.origin.pop_back();
        }
        ORVA::Network shape(ORVA::TEST, 1, -1);
        const std::string probe = "/tmp/orva_peer_" + std::string(model.name) + std::to_string(getpid()) + ".orva";
        orvacli::writeModel(*model.converted, probe);
        shape.load(probe.c_str());
        remove(probe.c_str());
        model.w = shape.iW, model.h = shape.iH, model.c = shape.iC;
      } catch (const std::exception& e) {
        fprintf(stderr, "%s: %s: %s\n", model.name, model.weights_from.c_str(), e.what());
        ok = false;
        continue;
      }
      printf("# %s: %s, %d x %d x %d\n", model.name, model.weights_from.c_str(), model.w, model.h, model.c);
    } else if (!model.weights_from.empty()) {
      model.weights_from = opt.face_model;
    }
    std::string copied;
    if (!model.weights_from.empty() && !model.tfjs && access(model.weights_from.c_str(), R_OK) == 0) {
      copied = "/tmp/orva_peer_" + std::string(model.name) + std::to_string(getpid()) + ".model.weights";
      if (!copy_weights(model, copied)) {
        ok = false;
        continue;
      }
      printf("# %s: weights of %s\n", model.name, model.weights_from.c_str());
    } else if (!model.weights_from.empty() && !model.tfjs) {
      printf("# %s: random weights (%s not found)\n", model.name, model.weights_from.c_str());
    }
    Prepared p;
    const bool ready = prepare(model, copied, opt.ort, opt.int8, rng, p);
    if (!copied.empty()) remove(copied.c_str());
    if (ready) {
      for (int batch : {1, 4}) {
        if (opt.batch && batch != opt.batch) continue;
        for (int threads : {1, 2}) {
          if (opt.threads && threads != opt.threads) continue;
          ok = run_row(model, p, batch, threads, opt) && ok;
        }
      }
    } else {
      ok = false;
    }
    if (opt.keep)
      printf("# %s: files kept in %s\n", model.name, p.dir.c_str());
    else
      cleanup(p);
  }
  return ok ? 0 : 1;
}
