#include "layer/detobj_layer.h"

#include <cmath>

#include "orva/blas.h"
#include "kernels/region.h"

namespace ORVA {

namespace {
// The objectness and the four edge offsets: fixed at five whatever the coordinate count,
// which matches the usual four coordinates.
constexpr int kLogisticEntries = 5;
}  // namespace

void DetobjLayer::_activate(Ftype* input, int batch) {
  const int wh = _in_w * _in_h, group = (_coords + 1 + _classes) * wh;
  region_logistic(_gpu_handle, _output, batch, _outputs, _anchors, group, kLogisticEntries * wh, 1.f);
  if (_softmax && _classes > 0) {
    const int first = (_coords + 1) * wh;
    blas_softmax(_gpu_handle, input + first, _classes, _anchors * batch, _inputs / _anchors, wh, 1, wh, 1.f,
                 _output + first);
  }
}

void DetobjLayer::_activateGradient() {
  const int wh = _in_w * _in_h, group = (_coords + 1 + _classes) * wh;
  region_logistic_gradient(_gpu_handle, _output, _delta, _batch, _outputs, _anchors, group, kLogisticEntries * wh);
}

BBox DetobjLayer::_decode(const float* out, int n, int i, int j) const {
  const int loc = j * _in_w + i;
  const double aw = _anchor[2 * n], ah = _anchor[2 * n + 1], s = _scale_xy, W = _in_w, H = _in_h;
  const double d1 = out[_entry_index(0, n, loc, 1)], d2 = out[_entry_index(0, n, loc, 2)];
  const double d3 = out[_entry_index(0, n, loc, 3)], d4 = out[_entry_index(0, n, loc, 4)];
  const double x1 = (i + 0.5 - aw / 2) / W + aw * d1 * s / W;
  const double x2 = (i + 0.5 + aw / 2) / W - aw * d2 * s / W;
  const double y1 = (j + 0.5 - ah / 2) / H + ah * d3 * s / H;
  const double y2 = (j + 0.5 + ah / 2) / H - ah * d4 * s / H;
  return BBox{(float)((x1 + x2) / 2), (float)((y1 + y2) / 2), (float)std::fabs(x1 - x2), (float)std::fabs(y1 - y2)};
}

void DetobjLayer::_boxDelta(const float* out, float* delta, const BBox& t, int n, int i, int j, float s) const {
  // The offsets that would decode exactly into the truth's edges.
  const double aw = _anchor[2 * n] * (double)_scale_xy, ah = _anchor[2 * n + 1] * (double)_scale_xy;
  if (aw == 0 || ah == 0) return;
  const double left = (t.x - t.w / 2.0) * _in_w, right = (t.x + t.w / 2.0) * _in_w;
  const double top = (t.y - t.h / 2.0) * _in_h, bottom = (t.y + t.h / 2.0) * _in_h;
  const double half_w = _anchor[2 * n] / 2.0, half_h = _anchor[2 * n + 1] / 2.0;
  const double target[4] = {(left - (i + 0.5 - half_w)) / aw, ((i + 0.5 + half_w) - right) / aw,
                            (top - (j + 0.5 - half_h)) / ah, ((j + 0.5 + half_h) - bottom) / ah};
  const int loc = j * _in_w + i;
  for (int k = 0; k < 4; ++k) {
    const int e = _entry_index(0, n, loc, 1 + k);
    delta[e] = s * (float)(target[k] - out[e]);
  }
}

}  // namespace ORVA
