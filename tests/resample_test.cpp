// Layers that move values between positions: nearest-neighbour upsample, reorg (space to
// depth in the imported models' channel order), the sub-pixel resize (depth to space) and the
// bilinear resize under TensorFlow's three coordinate rules.
// Forward against index references on every backend; finite differences of each backward.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "layer/resize_layer.h"
#include "layer_test_util.h"
#include "kernels/tensor.h"

using namespace orva_test;

namespace {

std::vector<double> reference_resample(ORVA::Network& net, int batch) {
  const int li = net.getLayerCount() - 1;
  ORVA::Layer* l = net.getLayer(li);
  const std::vector<double> x = layer_input(net, li, batch);
  const int w = l->_in_w, h = l->_in_h, c = l->_in_c;
  std::vector<double> out((size_t)batch * l->_outputs);
  if (l->type == ORVA::LAYER_UPSAMPLE) {
    const int s = l->_out_w / w;
    for (size_t i = 0; i < out.size(); ++i) {
      const size_t xo = i % l->_out_w, yo = i / l->_out_w % l->_out_h, k = i / l->_out_w / l->_out_h;
      out[i] = x[(k * h + yo / s) * w + xo / s];
    }
  } else if (l->type == ORVA::LAYER_RESIZE) {
    const int rule = static_cast<ORVA::ResizeLayer*>(l)->_rule, ow = l->_out_w, oh = l->_out_h;
    // Source coordinate of output index d along an axis of n inputs and m outputs.
    auto src = [&](int d, int n, int m) {
      if (rule == kResizeAlignCorners) return m > 1 ? d * (n - 1.0) / (m - 1) : 0.0;
      if (rule == kResizeHalfPixel) return (d + 0.5) * n / m - 0.5;
      return (double)d * n / m;
    };
    auto at = [&](size_t k, int y, int xx) {
      y = std::min(std::max(y, 0), h - 1);
      xx = std::min(std::max(xx, 0), w - 1);
      return x[(k * h + y) * w + xx];
    };
    for (size_t i = 0; i < out.size(); ++i) {
      const int xo = (int)(i % ow), yo = (int)(i / ow % oh);
      const size_t k = i / ow / oh;
      const double sx = src(xo, w, ow), sy = src(yo, h, oh), fx = std::floor(sx), fy = std::floor(sy);
      const double tx = sx - fx, ty = sy - fy;
      const double top = at(k, (int)fy, (int)fx) * (1 - tx) + at(k, (int)fy, (int)fx + 1) * tx;
      const double bottom = at(k, (int)fy + 1, (int)fx) * (1 - tx) + at(k, (int)fy + 1, (int)fx + 1) * tx;
      out[i] = top * (1 - ty) + bottom * ty;
    }
  } else if (l->type == ORVA::LAYER_SPRESIZE) {
    // Output channel c2 at sub-position (dy, dx) comes from input channel (dy * s + dx) * out_c + c2.
    const int s = l->_out_w / w, oc = l->_out_c;
    for (int b = 0; b < batch; ++b)
      for (int c2 = 0; c2 < oc; ++c2)
        for (int y = 0; y < l->_out_h; ++y)
          for (int xo = 0; xo < l->_out_w; ++xo) {
            const int ic = ((y % s) * s + xo % s) * oc + c2;
            out[(((size_t)b * oc + c2) * l->_out_h + y) * l->_out_w + xo] = x[(((size_t)b * c + ic) * h + y / s) * w + xo / s];
          }
  } else {
    // Reorg: element (b, ic, y, x) of the output, read as a tensor of the input's shape, comes from
    // the input read as (w * s) x (h * s) x (c / s^2): channel ic % (c / s^2), sub-position ic / (c / s^2).
    const int s = w / l->_out_w, c2n = c / (s * s);
    for (int b = 0; b < batch; ++b)
      for (int ic = 0; ic < c; ++ic)
        for (int y = 0; y < h; ++y)
          for (int xx = 0; xx < w; ++xx) {
            const int c2 = ic % c2n, off = ic / c2n;
            const size_t xs = (size_t)xx * s + off % s, ys = (size_t)y * s + off / s;
            out[(((size_t)b * c + ic) * h + y) * w + xx] = x[xs + (size_t)w * s * (ys + (size_t)h * s * (c2 + (size_t)c2n * b))];
          }
  }
  return out;
}

struct Case {
  const char* text;
  int out_w, out_h, out_c;
};
const Case kCases[] = {
    {"[network]\nwidth=5\nheight=3\nchannels=3\n[upsample]\n", 10, 6, 3},
    {"[network]\nwidth=3\nheight=4\nchannels=2\n[upsample]\nstride=3\n", 9, 12, 2},
    {"[network]\nwidth=6\nheight=4\nchannels=8\n[reorg]\n", 3, 2, 32},
    {"[network]\nwidth=9\nheight=6\nchannels=9\n[reorg]\nstride=3\n", 3, 2, 81},
    // wide enough for the host's eight-wide gather of stride 2
    {"[network]\nwidth=20\nheight=4\nchannels=4\n[reorg]\n", 10, 2, 16},
    {"[network]\nwidth=5\nheight=3\nchannels=12\n[spresize]\n", 10, 6, 3},
    // bilinear: by a factor, to a larger and a smaller odd size, and a single row or column
    {"[network]\nwidth=8\nheight=8\nchannels=3\n[resize]\n", 16, 16, 3},
    {"[network]\nwidth=7\nheight=5\nchannels=2\n[resize]\nwidth=13\nheight=9\nalign_corners=1\n", 13, 9, 2},
    {"[network]\nwidth=9\nheight=10\nchannels=2\n[resize]\nwidth=4\nheight=3\nhalf_pixel=1\n", 4, 3, 2},
    {"[network]\nwidth=6\nheight=5\nchannels=2\n[resize]\nwidth=11\nheight=7\nhalf_pixel=1\n", 11, 7, 2},
    {"[network]\nwidth=1\nheight=4\nchannels=2\n[resize]\nwidth=3\nheight=1\nalign_corners=1\n", 3, 1, 2},
    {"[network]\nwidth=5\nheight=3\nchannels=2\n[resize]\nstride=3\nhalf_pixel=1\n", 15, 9, 2},
};

TEST(Resample, ForwardAndBackwardOnEveryBackend) {
  for (const Case& c : kCases) {
    auto net = net_from_text(c.text, 1, -1);
    const ORVA::Layer* l = net->getLayer(0);
    EXPECT_EQ(std::make_tuple(l->_out_w, l->_out_h, l->_out_c), std::make_tuple(c.out_w, c.out_h, c.out_c)) << c.text;
    check_forward(c.text, 2, reference_resample, kHalfRounding);
    // Copies: the loss is linear; the upsample gradient sums stride^2 values in float.
    check_input_backward(c.text, 2, 0.5f, 1e-2);
  }
}

}  // namespace
