#include "layer/region_layer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/cuda.h"
#include "orva/networks.h"
#include "kernels/region.h"
#include "orva/util.h"

namespace ORVA {

namespace {
// The model-format version that still wrote the older record.
constexpr int kOldRecordVersion = 0x30004;
// Bounds that keep a model file from asking for absurd heads; real ones are far below.
constexpr int kMaxCoords = 64;
constexpr int kMaxAnchors = 255;
}  // namespace

RegionLayer::~RegionLayer() { RegionLayer::_freeLayer(); }

void RegionLayer::_freeLayer() {
  free(_anchor);
  _anchor = nullptr;
  DetectionHead::_freeLayer();
}

void RegionLayer::parseConfig(ConfigReader& cfg, InputParams& params) { _parseRegion(cfg, params); }

void RegionLayer::_parseRegion(ConfigReader& cfg, InputParams& params) {
  if (!_takeInput(params)) ORVA_FATAL("Layer before %s layer must output image.", _imageKind());
  const int ns = params.nsect;
  _classes = cfg.findInt(ns, "classes", 1);
  _coords = cfg.findInt(ns, "coords", 4, true);
  _anchors = cfg.findInt(ns, "num", 1);
  _softmax = cfg.findInt(ns, "softmax", 0, true);
  if (_readsLocType()) _loc_type = cfg.findInt(ns, "loc_type", 0, true);
  _scale_xy = cfg.findFloat(ns, "scale_xy", 1, true);
  _bg_class = cfg.findInt(ns, "bg_class", 0, true);
  _readLossScales(cfg, ns);
  _coord_scale = cfg.findFloat(ns, "coord_scale", 1, true);
  _rescore = cfg.findFloat(ns, "rescore", 0, true);
  _thresh = cfg.findFloat(ns, "thresh", 0.5f, true);
  if (_classes < 0) ORVA_FATAL("%s: classes = %d must not be negative", _kind(), _classes);
  if (_coords < 4 || _coords > kMaxCoords) ORVA_FATAL("%s: coords = %d out of range 4..%d", _kind(), _coords, kMaxCoords);
  if (_anchors < 1 || _anchors > kMaxAnchors) ORVA_FATAL("%s: num = %d out of range 1..%d", _kind(), _anchors, kMaxAnchors);
  _makeLayer(params.quant, params.fast);

  const char* text = cfg.findStr(ns, "anchors", nullptr, true);
  if (!text) ORVA_FATAL("Anchors must be defined");
  // Values past 2 x num have no anchor to belong to and are dropped.
  const char* p = text;
  for (int k = 0; p; ++k) {
    const double v = strtod(p, nullptr);
    if (k < 2 * _anchors) _anchor[k] = (float)v;
    p = strchr(p, ',');
    if (p) ++p;
  }
  Layer::parseConfig(cfg, params);
}

int RegionLayer::loadConfig(FILE* fp, InputParams& params) {
  _loadRegion(fp, params);
  return 0;
}

void RegionLayer::_loadRegion(FILE* fp, InputParams& params) {
  _takeInput(params);
  if (params.net && params.net->version <= kOldRecordVersion) {
    int record[11];
    chk_fread(record, 4, 11, fp);
    _classes = record[0];
    _coords = record[1];
    _anchors = record[2];
    _softmax = record[3];
  } else {
    unsigned char record[64];
    chk_fread(record, 1, 64, fp);
    unsigned short classes;
    memcpy(&classes, record, 2);
    _classes = classes;
    _coords = record[2];
    _anchors = record[3];
    _bg_class = record[4];
    _softmax = record[5];
    if (_readsLocType()) _loc_type = record[6];
    memcpy(&_scale_xy, record + 8, 4);
  }
  char why[200];
  const long long out_c = ((long long)_coords + 1 + _classes) * _anchors;
  if (!_in_w || !_in_h || !_in_c || _classes < 0 || _classes > 65535 || _coords < 4 || _coords > kMaxCoords ||
      _anchors < 1 || _anchors > kMaxAnchors || out_c != _in_c || !std::isfinite(_scale_xy)) {
    snprintf(why, sizeof(why), "%s: classes %d, coords %d, num %d, scale_xy %g on an input of %d x %d x %d", _kind(),
             _classes, _coords, _anchors, _scale_xy, _in_w, _in_h, _in_c);
    throw std::runtime_error(why);
  }
  _makeLayer(params.quant, params.fast);
  chk_fread(_anchor, 4, 2 * _anchors, fp);
  Layer::loadConfig(fp, params);
}

int RegionLayer::saveConfig(FILE* fp) {
  unsigned char record[64] = {0};
  const unsigned short classes = (unsigned short)_classes;
  memcpy(record, &classes, 2);
  record[2] = (unsigned char)_coords;
  record[3] = (unsigned char)_anchors;
  record[4] = (unsigned char)_bg_class;
  record[5] = (unsigned char)_softmax;
  record[6] = _readsLocType() ? (unsigned char)_loc_type : 0;
  memcpy(record + 8, &_scale_xy, 4);
  chk_fwrite(record, 1, 64, fp);
  chk_fwrite(_anchor, 4, 2 * _anchors, fp);
  return Layer::saveConfig(fp);
}

void RegionLayer::_makeLayer(bool quant, bool fast) {
  // A remake (resize) keeps the anchors; they describe the model, not the shape.
  std::vector<float> anchors;
  if (_anchor) anchors.assign(_anchor, _anchor + 2 * _anchors);
  _freeLayer();
  _anchor = static_cast<float*>(calloc(2 * _anchors, sizeof(float)));
  std::copy(anchors.begin(), anchors.end(), _anchor);
  _makeHead(((long long)_coords + 1 + _classes) * _anchors, _coords + 1, _kind());
}

void RegionLayer::forward(NetworkParams& params) {
  const int b = std::min(params.batch, _batch);
  if (b < 1) return;
  blas_copy(_gpu_handle, b * _outputs, params.input, _output);
  _activate(params.input, b);
  if (mode && params.truth) _trainingPass(b, params.truth);
}

void RegionLayer::_activate(Ftype* input, int batch) {
  const int wh = _in_w * _in_h, group = (_coords + 1 + _classes) * wh;
  region_logistic(_gpu_handle, _output, batch, _outputs, _anchors, group, 2 * wh, _scale_xy);
  region_logistic(_gpu_handle, _output + _coords * wh, batch, _outputs, _anchors, group, wh, 1.f);
  if (_softmax && _classes > 0) {
    const int first = (_coords + 1) * wh;
    blas_softmax(_gpu_handle, input + first, _classes, _anchors * batch, _inputs / _anchors, wh, 1, wh, 1.f,
                 _output + first);
  }
}

void RegionLayer::_activateGradient() {
  const int wh = _in_w * _in_h, group = (_coords + 1 + _classes) * wh;
  region_logistic_gradient(_gpu_handle, _output, _delta, _batch, _outputs, _anchors, group, 2 * wh);
  region_logistic_gradient(_gpu_handle, _output + _coords * wh, _delta + _coords * wh, _batch, _outputs, _anchors,
                           group, wh);
}

BBox RegionLayer::_decode(const float* out, int n, int i, int j) const {
  const int loc = j * _in_w + i;
  const float tx = out[_entry_index(0, n, loc, 0)], ty = out[_entry_index(0, n, loc, 1)];
  const float tw = out[_entry_index(0, n, loc, 2)], th = out[_entry_index(0, n, loc, 3)];
  BBox b;
  b.x = (i + tx) / _in_w;
  b.y = (j + ty) / _in_h;
  if (_squaredSizes()) {
    b.w = tw * tw * _anchor[2 * n] / _in_w;
    b.h = th * th * _anchor[2 * n + 1] / _in_h;
  } else {
    b.w = std::exp(tw) * _anchor[2 * n] / _in_w;
    b.h = std::exp(th) * _anchor[2 * n + 1] / _in_h;
  }
  return b;
}

void RegionLayer::_boxDelta(const float* out, float* delta, const BBox& t, int n, int i, int j, float s) const {
  const int loc = j * _in_w + i;
  const float rw = t.w * _in_w / _anchor[2 * n], rh = t.h * _in_h / _anchor[2 * n + 1];
  const float target[4] = {t.x * _in_w - i, t.y * _in_h - j, _squaredSizes() ? std::sqrt(rw) : std::log(rw),
                           _squaredSizes() ? std::sqrt(rh) : std::log(rh)};
  for (int k = 0; k < 4; ++k) {
    const int e = _entry_index(0, n, loc, k);
    delta[e] = s * (target[k] - out[e]);
  }
}

void RegionLayer::getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) {
  const int wh = _in_w * _in_h;
  for (int n = 0; n < _anchors; ++n) {
    float* prob = probs + (size_t)n * wh;
    int* cls = classes + (size_t)n * wh;
    bestClass(output + _entry_index(0, n, 0, _objEntry()), output + _entry_index(0, n, 0, _coords + 1), _classes, wh,
              prob, cls);
    for (int j = 0; j < _in_h; ++j)
      for (int i = 0; i < _in_w; ++i) boxes[(size_t)n * wh + j * _in_w + i] = _decode(output, n, i, j);
  }
}

void RegionLayer::_trainingPass(int batch, const float* truth) {
  if (!_output_cpu) return;
  _pullOutput(batch);

  const int wh = _in_w * _in_h, rec = _coords + 1;
  double iou_sum = 0, class_sum = 0, obj_sum = 0, bg_sum = 0;
  int recalled = 0, count = 0;
  for (int b = 0; b < batch; ++b) {
    const float* out = _output_cpu + (size_t)b * _outputs;
    float* delta = _delta_cpu + (size_t)b * _outputs;
    const float* tr = truth + (size_t)b * _truths;
    const int nt = truthCount(tr, rec);
    auto truth_box = [&](int t) { return truthBox(tr, t, rec); };

    for (int j = 0; j < _in_h; ++j)
      for (int i = 0; i < _in_w; ++i)
        for (int n = 0; n < _anchors; ++n) {
          const BBox pred = _decode(out, n, i, j);
          float best = 0;
          for (int t = 0; t < nt; ++t) best = std::max(best, box_iou(pred, truth_box(t)));
          const int o = _entry_index(0, n, j * _in_w + i, _objEntry());
          bg_sum += out[o];
          delta[o] = best > _thresh ? 0.f : -_noobj_scale * out[o];
        }

    for (int t = 0; t < nt; ++t) {
      const BBox tb = truth_box(t);
      const int i = std::min(std::max((int)(tb.x * _in_w), 0), _in_w - 1);
      const int j = std::min(std::max((int)(tb.y * _in_h), 0), _in_h - 1);
      const BBox shape = {0, 0, tb.w, tb.h};
      float best_iou = 0;
      int best_n = 0;
      for (int n = 0; n < _anchors; ++n) {
        BBox pred = _decode(out, n, i, j);
        pred.x = pred.y = 0;
        const float iou = box_iou(pred, shape);
        if (iou > best_iou) {
          best_iou = iou;
          best_n = n;
        }
      }
      const float s = (2 - tb.w * tb.h) * _coord_scale;
      _boxDelta(out, delta, tb, best_n, i, j, s);
      const int loc = j * _in_w + i;
      const float iou = box_iou(_decode(out, best_n, i, j), tb);
      iou_sum += iou;
      if (iou > 0.5f) ++recalled;

      const int o = _entry_index(0, best_n, loc, _objEntry());
      obj_sum += out[o];
      delta[o] = _obj_scale * ((_rescore + 10 * iou) / (_rescore + 10) - out[o]);

      const int cls = (int)tr[t * rec + _coords];
      for (int k = 0; k < _classes; ++k) {
        const int e = _entry_index(0, best_n, loc, _coords + 1 + k);
        delta[e] = _class_scale * ((k == cls ? 1.f : 0.f) - out[e]);
        if (k == cls) class_sum += out[e];
      }
      ++count;
    }
  }
  _publishLoss();
  printf("%s IOU: %.2f, Class: %.2f, Obj: %.2f, No-Obj: %f, Recall: %.2f, count: %d\n", _statsName(),
         iou_sum / count, class_sum / count, obj_sum / count, bg_sum / ((double)wh * _anchors * _batch),
         (double)recalled / count, count);
}

}  // namespace ORVA
