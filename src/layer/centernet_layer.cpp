#include "layer/centernet_layer.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/config.h"

namespace ORVA {

void CenternetLayer::_check(bool from_file) const {
  if (_in_h < 1 || _in_w < 1 || _in_c < 1) LAYER_FAULT(from_file, "Layer before centernet layer must output image.");
  if (_classes < 1 || _classes > 65535 || (long long)_classes + 4 != _in_c)
    LAYER_FAULT(from_file, "centernet: classes %d + 4 box channels must equal the input's %d channels", _classes,
                _in_c);
  if (_stride < 1 || _stride > 64) LAYER_FAULT(from_file, "centernet: stride %d out of range 1..64", _stride);
  if (_peak < 1 || _peak > 15 || _peak % 2 == 0)
    LAYER_FAULT(from_file, "centernet: peak %d must be odd, 1..15", _peak);
  if (_topk < 1 || _topk > 10000) LAYER_FAULT(from_file, "centernet: topk %d out of range 1..10000", _topk);
  if (!(_scale > 0) || !std::isfinite(_scale)) LAYER_FAULT(from_file, "centernet: scale %g must be positive", _scale);
  if (!layer_size_ok(_batch, (long long)_in_w * _in_h * _in_c))
    LAYER_FAULT(from_file, "centernet: input of %d x %d x %d, batch %d too large", _in_w, _in_h, _in_c, _batch);
}

void CenternetLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _takeInput(params);
  const int ns = params.nsect;
  _classes = cfg.findInt(ns, "classes", 80, true);
  _stride = cfg.findInt(ns, "stride", 4, true);
  _scale = cfg.findFloat(ns, "scale", 1, true);
  _peak = cfg.findInt(ns, "peak", 3, true);
  _topk = cfg.findInt(ns, "topk", 100, true);
  Layer::parseConfig(cfg, params);
  _check(false);
  _makeLayer(params.quant, params.fast);
}

int CenternetLayer::loadConfig(FILE* fp, InputParams& params) {
  _takeInput(params);
  int rec[4];
  chk_fread(rec, 4, 4, fp);
  chk_fread(&_scale, 4, 1, fp);
  _classes = rec[0];
  _stride = rec[1];
  _peak = rec[2];
  _topk = rec[3];
  Layer::loadConfig(fp, params);
  _check(true);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int CenternetLayer::saveConfig(FILE* fp) {
  const int rec[4] = {_classes, _stride, _peak, _topk};
  chk_fwrite(rec, 4, 4, fp);
  chk_fwrite(&_scale, 4, 1, fp);
  return Layer::saveConfig(fp);
}

void CenternetLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _check(false);
  _makeLayer(params.quant, params.fast);
}

void CenternetLayer::_makeLayer(bool quant, bool fast) {
  DetectionHead::_freeLayer();
  char summary[96];
  snprintf(summary, sizeof summary, "centernet %5d classes x%d  %4d x%4d x%4d", _classes, _stride, _in_w, _in_h, _in_c);
  _makeHead(_in_c, 0, summary);
}

void CenternetLayer::forward(NetworkParams& params) {
  const int batch = layer_pass_batch(params, _batch);
  const int maps = _classes * _in_w * _in_h;
  blas_copy(_gpu_handle, batch * _outputs, params.input, _output);
  for (int b = 0; b < batch; ++b) activation_forward(_gpu_handle, 0, _output + (size_t)b * _outputs, maps);
}

void CenternetLayer::getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) {
  const int w = _in_w, h = _in_h, plane = w * h, r = _peak / 2;
  struct Peak {
    float score;
    int index;  // class * plane + cell
  };
  std::vector<Peak> peaks;
  for (int c = 0; c < _classes; ++c) {
    const float* m = output + (size_t)c * plane;
    for (int j = 0; j < h; ++j)
      for (int i = 0; i < w; ++i) {
        const float v = m[j * w + i];
        if (!(v > thresh)) continue;
        bool top = true;
        for (int y = std::max(0, j - r); top && y <= std::min(h - 1, j + r); ++y)
          for (int x = std::max(0, i - r); x <= std::min(w - 1, i + r); ++x)
            if (m[y * w + x] > v) {
              top = false;
              break;
            }
        if (top) peaks.push_back({v, c * plane + j * w + i});
      }
  }
  // Best first; equal scores in index order, so the result does not depend on the sort.
  auto better = [](const Peak& a, const Peak& b) { return a.score > b.score || (a.score == b.score && a.index < b.index); };
  const size_t keep = std::min(peaks.size(), (size_t)_topk);
  std::partial_sort(peaks.begin(), peaks.begin() + keep, peaks.end(), better);
  const float in_w = (float)w * _stride, in_h = (float)h * _stride;
  const float* edges = output + (size_t)_classes * plane;
  for (int k = 0; k < _topk; ++k) {
    if ((size_t)k >= keep) {
      probs[k] = 0;
      classes[k] = 0;
      boxes[k] = BBox{0, 0, 0, 0};
      continue;
    }
    const int cell = peaks[k].index % plane;
    const float cx = (float)(cell % w) * _stride, cy = (float)(cell / w) * _stride;
    const float x1 = cx - _scale * edges[cell], y1 = cy - _scale * edges[plane + cell];
    const float x2 = cx + _scale * edges[2 * plane + cell], y2 = cy + _scale * edges[3 * plane + cell];
    probs[k] = peaks[k].score;
    classes[k] = peaks[k].index / plane;
    boxes[k] = BBox{(x1 + x2) / 2 / in_w, (y1 + y2) / 2 / in_h, (x2 - x1) / in_w, (y2 - y1) / in_h};
  }
}

}  // namespace ORVA
