#include "layer/heatmap_layer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/cuda.h"
#include "kernels/region.h"
#include "orva/util.h"

namespace ORVA {

namespace {
constexpr int kTruthSize = 5;
constexpr int kMaxAnchors = 255;
}  // namespace

void HeatmapLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  if (!_takeInput(params)) ORVA_FATAL("Layer before heatmap layer must output image.");
  const int ns = params.nsect;
  _anchors = cfg.findInt(ns, "num", 1);
  _classes = cfg.findInt(ns, "classes", 1);
  _bg_class = cfg.findInt(ns, "bg_class", 0, true);
  _softmax = cfg.findInt(ns, "softmax", 0, true);
  _readLossScales(cfg, ns);
  _thresh = cfg.findFloat(ns, "thresh", 0.05f, true);
  if (_classes < 0) ORVA_FATAL("heatmap: classes = %d must not be negative", _classes);
  if (_anchors < 1 || _anchors > kMaxAnchors) ORVA_FATAL("heatmap: num = %d out of range 1..%d", _anchors, kMaxAnchors);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int HeatmapLayer::loadConfig(FILE* fp, InputParams& params) {
  _takeInput(params);
  unsigned char record[64];
  chk_fread(record, 1, 64, fp);
  unsigned short classes;
  memcpy(&classes, record, 2);
  _classes = classes;
  _bg_class = record[2];
  _anchors = record[3];
  _softmax = record[4];
  if (!_in_w || !_in_h || !_in_c || _anchors < 1 || (long long)_anchors * (1 + _classes) != _in_c) {
    char why[160];
    snprintf(why, sizeof(why), "heatmap: classes %d, num %d on an input of %d x %d x %d", _classes, _anchors, _in_w,
             _in_h, _in_c);
    throw std::runtime_error(why);
  }
  _makeLayer(params.quant, params.fast);
  Layer::loadConfig(fp, params);
  return 0;
}

int HeatmapLayer::saveConfig(FILE* fp) {
  unsigned char record[64] = {0};
  const unsigned short classes = (unsigned short)_classes;
  memcpy(record, &classes, 2);
  record[2] = (unsigned char)_bg_class;
  record[3] = (unsigned char)_anchors;
  record[4] = (unsigned char)_softmax;
  chk_fwrite(record, 1, 64, fp);
  return Layer::saveConfig(fp);
}

void HeatmapLayer::_makeLayer(bool quant, bool fast) {
  _freeLayer();
  _subdiv = (int)std::sqrt((double)_anchors);
  _makeHead((long long)_anchors * (1 + _classes), kTruthSize, "heatmap");
}

void HeatmapLayer::forward(NetworkParams& params) {
  const int b = std::min(params.batch, _batch);
  if (b < 1) return;
  const int wh = _in_w * _in_h, group = (1 + _classes) * wh;
  blas_copy(_gpu_handle, b * _outputs, params.input, _output);
  region_logistic(_gpu_handle, _output, b, _outputs, _anchors, group, wh, 1.f);
  if (_softmax && _classes > 0)
    blas_softmax(_gpu_handle, params.input + wh, _classes, _anchors * b, _inputs / _anchors, wh, 1, wh, 1.f,
                 _output + wh);
  if (mode && params.truth) _trainingPass(b, params.truth);
}

void HeatmapLayer::_activateGradient() {
  const int wh = _in_w * _in_h;
  region_logistic_gradient(_gpu_handle, _output, _delta, _batch, _outputs, _anchors, (1 + _classes) * wh, wh);
}

void HeatmapLayer::getHeatmap(float* output, float thresh, float* probs, int* classes) {
  const int s = _subdiv, wh = _in_w * _in_h;
  for (int j = 0; j < _in_h; ++j)
    for (int i = 0; i < _in_w; ++i) {
      const int loc = j * _in_w + i;
      for (int a = 0; a < _anchors; ++a) {
        const float obj = output[_entry_index(0, a, loc, 0)];
        float best = _classes == 0 ? 1.f : 0.f;
        int best_k = 0;
        const float* score = output + _entry_index(0, a, loc, 1);
        for (int k = 0; k < _classes; ++k)
          if (score[(size_t)k * wh] > best) {
            best = score[(size_t)k * wh];
            best_k = k;
          }
        const int index = (j * s + a / s) * (_in_w * s) + i * s + a % s;
        const float p = best * obj;
        classes[index] = best_k;
        probs[index] = p < thresh ? 0.f : p;
      }
    }
}

void HeatmapLayer::_trainingPass(int batch, const float* truth) {
  if (!_output_cpu) return;
  _pullOutput(batch);

  const int s = _subdiv, W = _in_w, H = _in_h;
  double class_sum = 0, obj_sum = 0, bg_sum = 0;
  int count = 0;
  for (int b = 0; b < batch; ++b) {
    const float* out = _output_cpu + (size_t)b * _outputs;
    float* delta = _delta_cpu + (size_t)b * _outputs;
    const float* tr = truth + (size_t)b * _truths;
    const int nt = truthCount(tr, kTruthSize);
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        for (int a = 0; a < _anchors; ++a) {
          const double x = (double)i / W + (double)(a % s) / (s * W) + 1.0 / (2.0 * s * W);
          const double y = (double)j / H + (double)(a / s) / (s * H) + 1.0 / (2.0 * s * H);
          double d = 2.0;
          for (int t = 0; t < nt; ++t) {
            if (tr[t * kTruthSize + 4] < 0) continue;
            d = std::min(d, std::hypot(x - tr[t * kTruthSize], y - tr[t * kTruthSize + 1]));
          }
          const int o = _entry_index(0, a, j * W + i, 0);
          bg_sum += out[o];
          delta[o] = d < _thresh ? 0.f : -_noobj_scale * out[o];
        }
    for (int t = 0; t < nt; ++t) {
      const double fx = tr[t * kTruthSize] * W, fy = tr[t * kTruthSize + 1] * H;
      const int i = std::min(std::max((int)fx, 0), W - 1), j = std::min(std::max((int)fy, 0), H - 1);
      const int col = std::min(std::max((int)(fx * s - s * i), 0), s - 1);
      const int row = std::min(std::max((int)(fy * s - s * j), 0), s - 1);
      const int a = col + row * s, loc = j * W + i;
      const int o = _entry_index(0, a, loc, 0);
      obj_sum += out[o];
      delta[o] = _obj_scale * (1 - out[o]);
      const int cls = (int)tr[t * kTruthSize + 4];
      for (int k = 0; k < _classes; ++k) {
        const int e = _entry_index(0, a, loc, 1 + k);
        delta[e] = _class_scale * ((k == cls ? 1.f : 0.f) - out[e]);
        if (k == cls) class_sum += out[e];
      }
      ++count;
    }
  }
  _publishLoss();
  printf("Class: %.2f, Obj: %.2f, NObj: %f, count: %d\n", class_sum / count, obj_sum / count,
         bg_sum / ((double)W * H * _anchors * _batch), count);
}

}  // namespace ORVA
