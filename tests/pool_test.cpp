// Pooling layers: forward against a float64 reference of the window walk (border windows,
// windows wholly outside the input, the global and trimmed means) on every backend, and
// finite-difference checks of every backward.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "layer/avgpool_layer.h"
#include "layer/maxpool_layer.h"
#include "layer_test_util.h"

using namespace orva_test;

namespace {

std::vector<double> reference_pool(ORVA::Network& net, int batch) {
  const int li = net.getLayerCount() - 1;
  ORVA::Layer* l = net.getLayer(li);
  const std::vector<double> x = layer_input(net, li, batch);
  const int w = l->_in_w, h = l->_in_h, planes = batch * l->_in_c;
  std::vector<double> out;
  if (auto* a = dynamic_cast<ORVA::AvgpoolLayer*>(l); a && a->global()) {
    for (int k = 0; k < planes; ++k) {
      std::vector<double> v(x.begin() + (size_t)k * w * h, x.begin() + (size_t)(k + 1) * w * h);
      std::stable_sort(v.begin(), v.end());
      double s = 0;
      for (size_t i = a->_tmin; i < v.size() - a->_tmax; ++i) s += a->_square ? v[i] * v[i] : v[i];
      out.push_back(s / (v.size() - a->_tmin - a->_tmax));
    }
    return out;
  }
  const bool max = l->type == ORVA::LAYER_MAXPOOL || l->type == ORVA::LAYER_CMAXPOOL;
  int size, stride, pad;
  if (max) {
    auto* m = static_cast<ORVA::MaxpoolLayer*>(l);
    size = m->_size, stride = m->_stride, pad = m->_pad;
  } else {
    auto* a = static_cast<ORVA::AvgpoolLayer*>(l);
    size = a->_size, stride = a->_stride, pad = a->_pad;
  }
  // The output side does not depend on the window, (in + 2 pad) / stride, except for centred
  // windows: (in + 2 pad - size) / stride + 1.
  const int cut = l->type == ORVA::LAYER_CMAXPOOL ? size - stride : 0;
  EXPECT_EQ(l->_out_w, (w + 2 * pad - cut) / stride);
  EXPECT_EQ(l->_out_h, (h + 2 * pad - cut) / stride);
  for (int k = 0; k < planes; ++k)
    for (int i = 0; i < l->_out_h; ++i)
      for (int j = 0; j < l->_out_w; ++j) {
        double best = -std::numeric_limits<double>::infinity(), sum = 0;
        for (int n = 0; n < size; ++n)
          for (int m = 0; m < size; ++m) {
            const int y = i * stride - pad + n, xx = j * stride - pad + m;
            if (y < 0 || y >= h || xx < 0 || xx >= w) continue;
            const double v = x[((size_t)k * h + y) * w + xx];
            best = std::max(best, v);
            sum += v;
          }
        out.push_back(max ? best : sum / (size * size));
      }
  return out;
}

std::string pool_net(int w, int h, int c, const std::string& section) {
  return "[network]\nwidth=" + std::to_string(w) + "\nheight=" + std::to_string(h) + "\nchannels=" +
         std::to_string(c) + "\n" + section;
}

TEST(PoolForward, MatchesReferenceOnEveryBackend) {
  struct Case {
    int w, h, c;
    const char* section;
    double tol;
  };
  const Case cases[] = {
      {13, 11, 3, "[maxpool]\nsize=2\nstride=2\n", kHalfRounding},
      {9, 7, 2, "[maxpool]\nsize=3\nstride=1\n", kHalfRounding},  // 11 x 9: last windows wholly outside
      {7, 5, 3, "[maxpool]\nsize=2\nstride=1\n", kHalfRounding},
      {21, 5, 2, "[maxpool]\nsize=3\nstride=1\n", kHalfRounding},  // wide enough for the host's 8-lane rows
      {10, 9, 2, "[maxpool]\nsize=3\nstride=2\npad=0\n", kHalfRounding},
      {13, 11, 3, "[maxpool]\nsize=5\nstride=1\npad=2\ncentred=1\n", kHalfRounding},  // the pyramid's pools
      {9, 10, 2, "[maxpool]\nsize=9\nstride=1\npad=4\ncentred=1\n", kHalfRounding},
      {10, 9, 2, "[maxpool]\nsize=3\nstride=2\npad=1\ncentred=1\n", kHalfRounding},
      {7, 6, 3, "[avgpool]\nsize=2\nstride=2\npad=1\n", kHalfChain},  // corner windows hold one value
      {5, 6, 2, "[avgpool]\nsize=3\nstride=1\n", kHalfChain},
      {22, 4, 2, "[avgpool]\nsize=3\nstride=1\n", kHalfChain},
      {17, 6, 2, "[avgpool]\nsize=2\nstride=2\n", kHalfChain},
      {7, 5, 4, "[avgpool]\n", kHalfAccumulate},
      {6, 5, 3, "[avgpool]\nsquare=1\n", kHalfAccumulate},
      {5, 5, 3, "[avgpool]\ntmin=2\ntmax=3\n", kHalfAccumulate},
  };
  for (const Case& c : cases)
    check_forward(pool_net(c.w, c.h, c.c, c.section), 2, reference_pool, c.tol, 0.f, 1.f);
}

TEST(PoolBackward, MatchesFiniteDifferences) {
  struct Case {
    int w, h;
    const char* section;
    float step;
    bool distinct;  // maxima and ranks must not change place under the step
  };
  // Means are linear (square: quadratic) in their inputs, so a step of 1 is exact apart from
  // the half sums, and small planes keep those sums short.
  const Case cases[] = {
      {7, 6, "[maxpool]\nsize=2\nstride=2\n", 0.02f, true}, {7, 6, "[maxpool]\nsize=3\nstride=1\n", 0.02f, true},
      {21, 4, "[maxpool]\nsize=3\nstride=1\n", 0.02f, true}, {20, 4, "[maxpool]\nsize=2\nstride=2\n", 0.02f, true},
      {7, 6, "[maxpool]\nsize=5\nstride=1\npad=2\ncentred=1\n", 0.02f, true},
      {7, 6, "[avgpool]\nsize=3\nstride=2\n", 1.f, false},  {4, 3, "[avgpool]\n", 1.f, false},
      {4, 3, "[avgpool]\nsquare=1\n", 1.f, false},           {2, 2, "[avgpool]\ntmin=1\ntmax=1\n", 0.03f, true},
  };
  // Half rounding of the outputs, of the half sums and of the accumulated gradient.
  for (const Case& c : cases) check_input_backward(pool_net(c.w, c.h, 3, c.section), 2, c.step, 2e-2, c.distinct);
}

}  // namespace
