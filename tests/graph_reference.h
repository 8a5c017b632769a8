// Float64 evaluations of the graph operations the importers map, written from the
// operations' definitions and sharing nothing with the importers; the ONNX and TF.js import
// tests build their references from them. One sample, channels first.
#pragma once
#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

namespace graph_ref {

struct T {
  int c = 1, h = 1, w = 1;
  std::vector<double> v;
  size_t plane() const { return (size_t)h * w; }
  double& at(int ci, int y, int x) { return v[((size_t)ci * h + y) * w + x]; }
  double get(int ci, int y, int x) const { return v[((size_t)ci * h + y) * w + x]; }
  // Zero outside the plane.
  double padded(int ci, int y, int x) const { return y < 0 || x < 0 || y >= h || x >= w ? 0 : get(ci, y, x); }
  // Channels [from, to).
  T channels(int from, int to) const { return {to - from, h, w, {v.begin() + from * plane(), v.begin() + to * plane()}}; }
};

inline double sigmoid(double v) { return 1 / (1 + std::exp(-v)); }

inline T map(T x, const std::function<double(double)>& f) {
  for (double& v : x.v) v = f(v);
  return x;
}

// Filter [o][c / groups][k][k]; pads top, left, bottom, right; no bias when it is empty.
inline T conv(const T& x, const std::vector<double>& wt, const std::vector<double>& bias, int o, int k, int s,
              const int p[4], int d = 1, int g = 1) {
  const int oh = (x.h + p[0] + p[2] - d * (k - 1) - 1) / s + 1, ow = (x.w + p[1] + p[3] - d * (k - 1) - 1) / s + 1;
  T y{o, oh, ow, std::vector<double>((size_t)o * oh * ow)};
  const int ci = x.c / g;
  for (int f = 0; f < o; ++f) {
    std::fill(&y.at(f, 0, 0), &y.at(f, 0, 0) + y.plane(), bias.empty() ? 0 : bias[f]);
    for (int c = 0; c < ci; ++c)
      for (int ky = 0; ky < k; ++ky)
        for (int kx = 0; kx < k; ++kx) {
          const double wv = wt[(((size_t)f * ci + c) * k + ky) * k + kx];
          for (int yy = 0; yy < oh; ++yy)
            for (int xx = 0; xx < ow; ++xx)
              y.at(f, yy, xx) += wv * x.padded(f / (o / g) * ci + c, yy * s - p[0] + ky * d, xx * s - p[1] + kx * d);
        }
  }
  return y;
}

// a + b or a * b, where the smaller is a scalar, one value per channel or of the same shape.
inline T broadcast(const T& a, const T& b, bool product) {
  const T& big = a.v.size() >= b.v.size() ? a : b;
  const T& small = a.v.size() >= b.v.size() ? b : a;
  T y = big;
  for (size_t i = 0; i < y.v.size(); ++i) {
    const double s = small.v.size() == 1 ? small.v[0] : small.v.size() == big.v.size() ? small.v[i] : small.v[i / big.plane()];
    y.v[i] = product ? big.v[i] * s : big.v[i] + s;
  }
  return y;
}

// The mean of each channel as a 1 x 1 map.
inline T channel_mean(const T& x) {
  T y{x.c, 1, 1, std::vector<double>(x.c, 0.0)};
  for (size_t i = 0; i < x.v.size(); ++i) y.v[i / x.plane()] += x.v[i] / x.plane();
  return y;
}

inline T concat(const std::vector<T>& parts) {
  T y{0, parts[0].h, parts[0].w, {}};
  for (const T& p : parts) y.c += p.c, y.v.insert(y.v.end(), p.v.begin(), p.v.end());
  return y;
}

// Bilinear resize; the source position of output d of m from n inputs is d (n - 1) / (m - 1)
// with aligned corners, (d + 1/2) n / m - 1/2 with half-pixel centres, else d n / m; taps
// past the border take the border.
inline T resize_bilinear(const T& x, int oh, int ow, bool align, bool half) {
  auto src = [&](int d, int n, int m) {
    if (align) return m > 1 ? d * (n - 1.0) / (m - 1) : 0.0;
    return half ? (d + 0.5) * n / m - 0.5 : (double)d * n / m;
  };
  auto px = [&](int c, int yy, int xx) { return x.get(c, std::min(std::max(yy, 0), x.h - 1), std::min(std::max(xx, 0), x.w - 1)); };
  T y{x.c, oh, ow, std::vector<double>((size_t)x.c * oh * ow)};
  for (int c = 0; c < x.c; ++c)
    for (int i = 0; i < oh; ++i)
      for (int j = 0; j < ow; ++j) {
        const double sy = src(i, x.h, oh), sx = src(j, x.w, ow), fy = std::floor(sy), fx = std::floor(sx);
        const int y0 = (int)fy, x0 = (int)fx;
        const double top = px(c, y0, x0) * (1 - (sx - fx)) + px(c, y0, x0 + 1) * (sx - fx);
        const double bot = px(c, y0 + 1, x0) * (1 - (sx - fx)) + px(c, y0 + 1, x0 + 1) * (sx - fx);
        y.at(c, i, j) = top * (1 - (sy - fy)) + bot * (sy - fy);
      }
  return y;
}

}  // namespace graph_ref
