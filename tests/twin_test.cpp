// Launchers whose float64 references live in their layers' tests: each runs on every
// backend from the same inputs, and CUDA must give the host twin's result element by
// element. Shapes span several launch blocks and end in a partial one.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernels/batchnorm_kernel.h"
#include "harness.h"
#include "kernels/pool.h"
#include "kernels/region.h"
#include "kernels/tensor.h"

using namespace orva_test;

namespace {

std::vector<Ftype> concat(std::vector<Ftype> a, const std::vector<Ftype>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(Twins, Pooling) {
  struct Window {
    int batch, h, w, c, size, stride, pad;
  };
  for (const Window k : {Window{2, 19, 41, 3, 2, 2, 0}, Window{1, 13, 27, 5, 3, 1, 1}, Window{2, 7, 9, 4, 3, 2, 1}}) {
    const int oh = pool_out_side(k.h, k.pad, k.stride), ow = pool_out_side(k.w, k.pad, k.stride);
    const size_t in = (size_t)k.batch * k.c * k.h * k.w, out = (size_t)k.batch * k.c * oh * ow;
    const auto x = random_halves(in, -2, 2), d = random_halves(out, -1, 1), prev = random_halves(in, -1, 1);
    const std::string what = "pool " + std::to_string(k.h) + "x" + std::to_string(k.w) + " size " +
                             std::to_string(k.size) + " stride " + std::to_string(k.stride);
    // The maximum also meets zeros of both signs (equal, so the first one wins), -inf and NaN
    // (never chosen); inference (no indexes) must give the training pass's bits.
    std::vector<Ftype> xm = x;
    const unsigned short special[4] = {0x8000, 0x0000, 0xFC00, 0x7E00};
    for (Ftype& v : xm)
      if (rng()() % 5 < 2) v.__x = special[rng()() % 4];
    compare_backends(
        [&](void* h) {
          Tensor tx(h, xm), y(h, out), y2(h, out), td(h, d), tp(h, prev);
          Buffer<int> idx(h, out);
          pool_max_forward(h, k.batch, k.h, k.w, k.c, k.size, k.stride, k.pad, tx, y, idx);
          pool_max_forward(h, k.batch, k.h, k.w, k.c, k.size, k.stride, k.pad, tx, y2, nullptr);
          pool_max_backward(h, k.batch, k.h, k.w, k.c, k.size, k.stride, k.pad, td, idx, tp);
          const std::vector<Ftype> a = y.download(), b = y2.download();
          EXPECT_EQ(0, memcmp(a.data(), b.data(), out * sizeof(Ftype))) << what;
          return concat(a, tp.download());
        },
        kHalfRounding, ("max " + what).c_str());
    compare_backends(
        [&](void* h) {
          Tensor tx(h, x), y(h, out), td(h, d), tp(h, prev);
          pool_avg_forward(h, k.batch, k.h, k.w, k.c, k.size, k.stride, k.pad, tx, y);
          pool_avg_backward(h, k.batch, k.h, k.w, k.c, k.size, k.stride, k.pad, td, tp);
          return concat(y.download(), tp.download());
        },
        kHalfRounding, ("average " + what).c_str());
  }
  // Whole-plane means, plain, of squares, and trimmed.
  const int batch = 2, c = 3, h = 21, w = 25;
  const size_t in = (size_t)batch * c * h * w, out = (size_t)batch * c;
  const auto x = random_halves(in, -2, 2), d = random_halves(out, -1, 1), prev = random_halves(in, -1, 1);
  for (int square : {0, 1})
    for (int trim : {0, 40})
      compare_backends(
          [&](void* hd) {
            Tensor tx(hd, x), y(hd, out), td(hd, d), tp(hd, prev);
            Buffer<int> order(hd, in);
            pool_global_forward(hd, batch, h, w, c, square, trim, trim / 2, tx, order, y);
            pool_global_backward(hd, batch, h, w, c, square, trim, trim / 2, tx, order, td, tp);
            return concat(y.download(), tp.download());
          },
          kHalfChain, ("global square " + std::to_string(square) + " trim " + std::to_string(trim)).c_str());
}

TEST(Twins, TensorLayoutAndBroadcast) {
  const int batch = 2, c = 3, h = 13, w = 17, size = h * w;
  const size_t n = (size_t)batch * c * size;
  const auto x = random_halves(n, -2, 2), d = random_halves(n, -1, 1), prev = random_halves(n, -1, 1);
  const int stride = 2;
  const size_t big = n * stride * stride;
  const auto dbig = random_halves(big, -1, 1);
  compare_backends(
      [&](void* hd) {
        Tensor tx(hd, x), up(hd, big), td(hd, dbig), tp(hd, prev);
        tensor_upsample(hd, batch, w, h, c, stride, tx, up);
        tensor_upsample_backward(hd, batch, w, h, c, stride, td, tp);
        return concat(up.download(), tp.download());
      },
      kHalfChain, "upsample");
  for (int per_position : {0, 1}) {
    const size_t ns = per_position ? (size_t)batch * size : (size_t)batch * c;
    const auto s = random_halves(ns, 0.5f, 2.f), sd = random_halves(ns, -1, 1);
    compare_backends(
        [&](void* hd) {
          Tensor tx(hd, x), ts(hd, s), y(hd, n), td(hd, d), tp(hd, prev), tsd(hd, sd);
          tensor_scale(hd, batch, c, size, per_position, tx, ts, y);
          tensor_scale_backward(hd, batch, c, size, per_position, tx, ts, td, tp, tsd);
          return concat(concat(y.download(), tp.download()), tsd.download());
        },
        kHalfChain, ("scale per_position " + std::to_string(per_position)).c_str());
  }
  const std::vector<float> rand = random_floats(n, 0.f, 1.f);
  compare_backends(
      [&](void* hd) {
        Tensor tx(hd, x), y(hd, n), td(hd, d), tp(hd, prev);
        Buffer<float> r(hd, rand);
        tensor_dropout(hd, (int)n, tx, r, 0.3f, 1.f / 0.7f, y);
        tensor_dropout_backward(hd, (int)n, td, r, 0.3f, 1.f / 0.7f, tp);
        return concat(y.download(), tp.download());
      },
      kHalfChain, "dropout");
  const auto slope = random_halves(c, 0.05f, 0.3f), sd = random_halves(c, -1, 1);
  compare_backends(
      [&](void* hd) {
        Tensor tx(hd, x), ts(hd, slope), y(hd, n), td(hd, d), tp(hd, prev), tsd(hd, sd);
        tensor_prelu(hd, batch, c, size, tx, ts, y);
        tensor_prelu_backward(hd, batch, c, size, tx, ts, td, tp, tsd);
        return concat(concat(y.download(), tp.download()), tsd.download());
      },
      kHalfChain, "prelu");
}

TEST(Twins, RegionLogisticRuns) {
  // Two items of three anchors, each anchor a run of 2 coordinates over a 19 x 23 grid.
  const int batch = 2, groups = 3, plane = 19 * 23, group_offset = 7 * plane, batch_offset = groups * group_offset;
  const size_t n = (size_t)batch * batch_offset;
  const auto x = random_halves(n, -6, 6), d = random_halves(n, -1, 1);
  for (float scale : {1.f, 1.2f})
    compare_backends(
        [&](void* hd) {
          Tensor tx(hd, x), td(hd, d);
          region_logistic(hd, tx, batch, batch_offset, groups, group_offset, 2 * plane, scale);
          region_logistic_gradient(hd, tx, td, batch, batch_offset, groups, group_offset, 2 * plane);
          return concat(tx.download(), td.download());
        },
        kHalfRounding, ("region logistic scale " + std::to_string(scale)).c_str());
}

TEST(Twins, BatchnormFold) {
  const int n = 37, size = 3 * 3 * 17;  // weights of 37 filters over 17 channels, 3 x 3
  const auto w = random_halves((size_t)n * size, -1, 1), b = random_halves(n, -1, 1), s = random_halves(n, 0.5f, 2),
             m = random_halves(n, -1, 1), v = random_halves(n, 0.1f, 2);
  compare_backends(
      [&](void* h) {
        Tensor tw(h, w), tb(h, b), ts(h, s), tm(h, m), tv(h, v);
        batchnorm_fold(h, tw, tb, ts, tm, tv, n, size);
        return concat(tw.download(), tb.download());
      },
      kHalfRounding, "batchnorm fold");
}

}  // namespace
