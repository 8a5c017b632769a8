#include "layer/yolo_layer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/networks.h"
#include "orva/orva.h"
#include "kernels/region.h"
#include "orva/util.h"

namespace ORVA {

namespace {
constexpr int kTruthSize = 5;
constexpr int kMaxAnchors = 255;
constexpr int kMaxClasses = 65535;

// Comma-separated numbers; an empty or missing text gives none.
std::vector<double> numbers(const char* text) {
  std::vector<double> v;
  for (const char* p = text; p && *p;) {
    char* end = nullptr;
    const double x = strtod(p, &end);
    if (end == p) break;
    v.push_back(x);
    p = strchr(end, ',');
    if (p) ++p;
  }
  return v;
}
}  // namespace

// The anchors and the mask describe the model and outlive a remake of the tensors.
YoloLayer::~YoloLayer() {
  free(_anchor);
  free(_mask);
}

void YoloLayer::_takeNetSize(const InputParams& params) {
  if (params.net) {
    _net_w = params.net->iW;
    _net_h = params.net->iH;
  }
}

void YoloLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  if (!_takeInput(params)) ORVA_FATAL("Layer before yolo layer must output image.");
  _takeNetSize(params);
  const int ns = params.nsect;
  _classes = cfg.findInt(ns, "classes", 20);
  _total = cfg.findInt(ns, "num", 1);
  _new_coords = cfg.findInt(ns, "new_coords", 0, true);
  _scale_xy = cfg.findFloat(ns, "scale_x_y", 1, true);
  _ignore_thresh = cfg.findFloat(ns, "ignore_thresh", 0.5f, true);
  _truth_thresh = cfg.findFloat(ns, "truth_thresh", 1, true);
  _iou_normalizer = cfg.findFloat(ns, "iou_normalizer", 1, true);
  _cls_normalizer = cfg.findFloat(ns, "cls_normalizer", 1, true);
  _beta_nms = cfg.findFloat(ns, "beta_nms", 0.6f, true);
  _readLossScales(cfg, ns);
  const std::string loss = cfg.findStr(ns, "iou_loss", "mse", true);
  const std::string kind = cfg.findStr(ns, "nms_kind", "greedynms", true);
  if (loss == "mse") _iou_loss = kMse;
  else if (loss == "giou") _iou_loss = kGiou;
  else if (loss == "ciou") _iou_loss = kCiou;
  else ORVA_FATAL("yolo: iou_loss '%s' is not mse, giou or ciou", loss.c_str());
  if (kind == "greedynms") _nms_kind = kGreedyNms;
  else if (kind == "diounms") _nms_kind = kDiouNms;
  else ORVA_FATAL("yolo: nms_kind '%s' is not greedynms or diounms", kind.c_str());
  if (_classes < 0 || _classes > kMaxClasses) ORVA_FATAL("yolo: classes = %d out of range 0..%d", _classes, kMaxClasses);
  if (_total < 1 || _total > kMaxAnchors) ORVA_FATAL("yolo: num = %d out of range 1..%d", _total, kMaxAnchors);
  const std::vector<double> anchors = numbers(cfg.findStr(ns, "anchors", nullptr, true));
  if ((int)anchors.size() < 2 * _total)
    ORVA_FATAL("yolo: %d anchor values for num = %d", (int)anchors.size(), _total);
  std::vector<double> mask = numbers(cfg.findStr(ns, "mask", nullptr, true));
  if (mask.empty())
    for (int k = 0; k < _total; ++k) mask.push_back(k);
  if ((int)mask.size() > kMaxAnchors) ORVA_FATAL("yolo: %d mask entries, at most %d", (int)mask.size(), kMaxAnchors);
  for (double m : mask)
    if (m < 0 || m >= _total || m != (int)m) ORVA_FATAL("yolo: mask entry %g names no anchor of num = %d", m, _total);
  _anchors = (int)mask.size();
  free(_anchor);
  free(_mask);
  _anchor = static_cast<float*>(calloc(2 * _total, sizeof(float)));
  _mask = static_cast<int*>(calloc(_anchors, sizeof(int)));
  for (int k = 0; k < 2 * _total; ++k) _anchor[k] = (float)anchors[k];
  for (int k = 0; k < _anchors; ++k) _mask[k] = (int)mask[k];
  const long long want = (5LL + _classes) * _anchors;
  if (want != _in_c)
    ORVA_FATAL("yolo: the input has %d channels, (5 + classes %d) x %d masked anchors is %lld", _in_c, _classes,
               _anchors, want);
  _makeLayer(params.quant, params.fast);
  Layer::parseConfig(cfg, params);
}

// Record: 64 bytes (below), float32 anchor pairs (2 x num), int32 mask entries.
int YoloLayer::loadConfig(FILE* fp, InputParams& params) {
  _takeInput(params);
  _takeNetSize(params);
  unsigned char record[64];
  chk_fread(record, 1, 64, fp);
  unsigned short classes;
  memcpy(&classes, record, 2);
  _classes = classes;
  _anchors = record[2];
  _total = record[3];
  _new_coords = record[4];
  _iou_loss = record[5];
  _nms_kind = record[6];
  float f[6];
  memcpy(f, record + 8, sizeof(f));
  _scale_xy = f[0];
  _ignore_thresh = f[1];
  _truth_thresh = f[2];
  _beta_nms = f[3];
  _iou_normalizer = f[4];
  _cls_normalizer = f[5];
  bool finite = true;
  for (float v : f) finite = finite && std::isfinite(v);
  char why[200];
  if (!_in_w || !_in_h || !_in_c || _anchors < 1 || _total < 1 || _new_coords > 1 || _iou_loss > kCiou ||
      _nms_kind > kDiouNms || !finite || (5LL + _classes) * _anchors != _in_c) {
    snprintf(why, sizeof(why), "yolo: classes %d, mask %d of num %d, new_coords %d, iou_loss %d, nms_kind %d on an input of %d x %d x %d",
             _classes, _anchors, _total, _new_coords, _iou_loss, _nms_kind, _in_w, _in_h, _in_c);
    throw std::runtime_error(why);
  }
  free(_anchor);
  free(_mask);
  _anchor = static_cast<float*>(calloc(2 * _total, sizeof(float)));
  _mask = static_cast<int*>(calloc(_anchors, sizeof(int)));
  chk_fread(_anchor, 4, 2 * _total, fp);
  chk_fread(_mask, 4, _anchors, fp);
  for (int k = 0; k < _anchors; ++k)
    if (_mask[k] < 0 || _mask[k] >= _total) {
      snprintf(why, sizeof(why), "yolo: mask entry %d names no anchor of num = %d", _mask[k], _total);
      throw std::runtime_error(why);
    }
  _makeLayer(params.quant, params.fast);
  Layer::loadConfig(fp, params);
  return 0;
}

int YoloLayer::saveConfig(FILE* fp) {
  unsigned char record[64] = {0};
  const unsigned short classes = (unsigned short)_classes;
  memcpy(record, &classes, 2);
  record[2] = (unsigned char)_anchors;
  record[3] = (unsigned char)_total;
  record[4] = (unsigned char)_new_coords;
  record[5] = (unsigned char)_iou_loss;
  record[6] = (unsigned char)_nms_kind;
  const float f[6] = {_scale_xy, _ignore_thresh, _truth_thresh, _beta_nms, _iou_normalizer, _cls_normalizer};
  memcpy(record + 8, f, sizeof(f));
  chk_fwrite(record, 1, 64, fp);
  chk_fwrite(_anchor, 4, 2 * _total, fp);
  chk_fwrite(_mask, 4, _anchors, fp);
  return Layer::saveConfig(fp);
}

void YoloLayer::resize(InputParams& params) {
  _takeNetSize(params);
  DetectionHead::resize(params);
}

void YoloLayer::_makeLayer(bool quant, bool fast) {
  DetectionHead::_freeLayer();
  _makeHead((5LL + _classes) * _anchors, kTruthSize, "yolo");
}

void YoloLayer::forward(NetworkParams& params) {
  const int b = layer_pass_batch(params, _batch);
  if (b < 1) return;
  blas_copy(_gpu_handle, b * _outputs, params.input, _output);
  // In the new form the layer before has applied the logistic already; the centre stretch
  // is applied when decoding.
  if (!_new_coords) {
    const int wh = _in_w * _in_h, group = (5 + _classes) * wh;
    region_logistic(_gpu_handle, _output, b, _outputs, _anchors, group, 2 * wh, _scale_xy);
    region_logistic(_gpu_handle, _output + 4 * wh, b, _outputs, _anchors, group, (1 + _classes) * wh, 1.f);
  }
  if (mode && params.truth) _trainingPass(b, params.truth);
}

void YoloLayer::_activateGradient() {
  if (_new_coords) return;
  const int wh = _in_w * _in_h, group = (5 + _classes) * wh;
  region_logistic_gradient(_gpu_handle, _output, _delta, _batch, _outputs, _anchors, group, 2 * wh);
  region_logistic_gradient(_gpu_handle, _output + 4 * wh, _delta + 4 * wh, _batch, _outputs, _anchors, group,
                           (1 + _classes) * wh);
}

BBox YoloLayer::decode(const float* out, int n, int i, int j) const {
  const int loc = j * _in_w + i;
  float tx = out[_entry_index(0, n, loc, 0)], ty = out[_entry_index(0, n, loc, 1)];
  const float tw = out[_entry_index(0, n, loc, 2)], th = out[_entry_index(0, n, loc, 3)];
  const float aw = _anchor[2 * _mask[n]], ah = _anchor[2 * _mask[n] + 1];
  const float nw = _net_w > 0 ? (float)_net_w : (float)_in_w, nh = _net_h > 0 ? (float)_net_h : (float)_in_h;
  BBox b;
  if (_new_coords) {
    tx = tx * _scale_xy - 0.5f * (_scale_xy - 1);
    ty = ty * _scale_xy - 0.5f * (_scale_xy - 1);
    b.w = 4 * tw * tw * aw / nw;
    b.h = 4 * th * th * ah / nh;
  } else {
    b.w = std::exp(tw) * aw / nw;
    b.h = std::exp(th) * ah / nh;
  }
  b.x = (i + tx) / _in_w;
  b.y = (j + ty) / _in_h;
  return b;
}

void YoloLayer::getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) {
  const int wh = _in_w * _in_h;
  for (int n = 0; n < _anchors; ++n) {
    bestClass(output + _entry_index(0, n, 0, 4), output + _entry_index(0, n, 0, 5), _classes, wh,
              probs + (size_t)n * wh, classes + (size_t)n * wh);
    for (int j = 0; j < _in_h; ++j)
      for (int i = 0; i < _in_w; ++i) boxes[(size_t)n * wh + j * _in_w + i] = decode(output, n, i, j);
  }
}

void YoloLayer::_trainingPass(int batch, const float* truth) {
  if (!_output_cpu) return;
  _pullOutput(batch);
  const int W = _in_w, H = _in_h;
  const float nw = _net_w > 0 ? (float)_net_w : (float)W, nh = _net_h > 0 ? (float)_net_h : (float)H;
  double iou_sum = 0, class_sum = 0, obj_sum = 0, bg_sum = 0;
  int recalled = 0, count = 0;
  for (int b = 0; b < batch; ++b) {
    const float* out = _output_cpu + (size_t)b * _outputs;
    float* delta = _delta_cpu + (size_t)b * _outputs;
    const float* tr = truth + (size_t)b * _truths;
    const int nt = truthCount(tr, kTruthSize);

    // Every prediction: no object unless it already overlaps some truth well enough.
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        for (int n = 0; n < _anchors; ++n) {
          const BBox pred = decode(out, n, i, j);
          float best = 0;
          for (int t = 0; t < nt; ++t) best = std::max(best, box_iou(pred, truthBox(tr, t, kTruthSize)));
          const int o = _entry_index(0, n, j * W + i, 4);
          bg_sum += out[o];
          delta[o] = best > _ignore_thresh ? 0.f : -_noobj_scale * out[o];
        }

    // Each truth belongs to the anchor of the whole list whose shape fits it best; this head
    // learns it only when that anchor is one of its own.
    for (int t = 0; t < nt; ++t) {
      const BBox tb = truthBox(tr, t, kTruthSize);
      if (!(tb.w > 0 && tb.h > 0)) continue;
      const BBox shape = {0, 0, tb.w, tb.h};
      int best_a = 0;
      float best_iou = -1;
      for (int a = 0; a < _total; ++a) {
        const float iou = box_iou(BBox{0, 0, _anchor[2 * a] / nw, _anchor[2 * a + 1] / nh}, shape);
        if (iou > best_iou) {
          best_iou = iou;
          best_a = a;
        }
      }
      const int n = (int)(std::find(_mask, _mask + _anchors, best_a) - _mask);
      if (n == _anchors) continue;
      const int i = std::min(std::max((int)(tb.x * W), 0), W - 1);
      const int j = std::min(std::max((int)(tb.y * H), 0), H - 1);
      const int loc = j * W + i;
      const float aw = _anchor[2 * best_a], ah = _anchor[2 * best_a + 1];
      const float rw = tb.w * nw / aw, rh = tb.h * nh / ah;
      float target[4] = {tb.x * W - i, tb.y * H - j, 0, 0};
      if (_new_coords) {
        // The stored centre is the logistic before the stretch.
        target[0] = (target[0] + 0.5f * (_scale_xy - 1)) / _scale_xy;
        target[1] = (target[1] + 0.5f * (_scale_xy - 1)) / _scale_xy;
        target[2] = std::sqrt(rw) / 2;
        target[3] = std::sqrt(rh) / 2;
      } else {
        target[2] = std::log(rw);
        target[3] = std::log(rh);
      }
      const float s = _iou_normalizer * (2 - tb.w * tb.h);
      for (int k = 0; k < 4; ++k) {
        const int e = _entry_index(0, n, loc, k);
        delta[e] = s * (target[k] - out[e]);
      }
      const float iou = box_iou(decode(out, n, i, j), tb);
      iou_sum += iou;
      if (iou > 0.5f) ++recalled;
      const int o = _entry_index(0, n, loc, 4);
      obj_sum += out[o];
      delta[o] = _obj_scale * (1 - out[o]);
      const int cls = (int)tr[t * kTruthSize + 4];
      for (int k = 0; k < _classes; ++k) {
        const int e = _entry_index(0, n, loc, 5 + k);
        delta[e] = _cls_normalizer * _class_scale * ((k == cls ? 1.f : 0.f) - out[e]);
        if (k == cls) class_sum += out[e];
      }
      ++count;
    }
  }
  _publishLoss();
  if (count)
    printf("Yolo %dx%d IOU: %.2f, Class: %.2f, Obj: %.2f, No-Obj: %f, Recall: %.2f, count: %d\n", W, H,
           iou_sum / count, class_sum / count, obj_sum / count, bg_sum / ((double)W * H * _anchors * batch),
           (double)recalled / count, count);
}

}  // namespace ORVA
