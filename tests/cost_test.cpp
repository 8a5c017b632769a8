// Loss kernels against float64 references on every backend; the cost layer's keys, cost,
// backward hand-off and model-file record.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "harness.h"
#include "layer/cost_layer.h"
#include "layer_test_util.h"
#include "kernels/cost.h"

using namespace orva_test;

namespace {

// The difference is rounded to half once and the error once more.
constexpr double kLossTol = kHalfChain;
// pow, log and the clamp in float, then one rounding to half.
constexpr double kXentTol = kHalfChain;

struct LossCase {
  const char* name;
  int type;  // CostLayer::_ctype
  float thresh;
};

// Float64 error and gradient of one element, d = truth - input.
void reference_loss(int type, double d, double t, double* e, double* g) {
  const double a = std::fabs(d), s = d > 0 ? 1 : -1;
  if (type == 0 || (type == 2 && a < 1)) {
    *e = d * d;
    *g = *e > t ? d : 0;
  } else if (type == 1) {
    *e = a;
    *g = a > t ? s : 0;
  } else {
    *e = 2 * a - 1;
    *g = *e > t ? s : 0;
  }
}

TEST(CostKernels, ElementLossesAndGradientsMatchFloat64) {
  const LossCase cases[] = {{"L2", 0, 0.f},  {"L2 thresholded", 0, 0.25f}, {"L1", 1, 0.f},
                            {"L1 thresholded", 1, 0.4f}, {"smooth L1", 2, 0.f}, {"smooth L1 thresholded", 2, 0.3f}};
  const int n = 3000;
  for (const LossCase& c : cases) {
    std::vector<Ftype> input = random_halves(n, -2.f, 2.f);
    std::vector<float> truth = random_floats(n, -2.f, 2.f);
    std::vector<double> reference(2 * (size_t)n);
    for (int i = 0; i < n; ++i) {
      double e, g;
      const double d = half2float_cpu(float2half_cpu(truth[i])) - half2float_cpu(input[i].__x);
      reference_loss(c.type, d, c.thresh, &e, &g);
      // Elements whose error sits on the threshold may round either way; move them off it.
      if (c.thresh > 0 && std::fabs(e - c.thresh) < 0.02) {
        truth[i] += 0.1f;
        const double d2 = half2float_cpu(float2half_cpu(truth[i])) - half2float_cpu(input[i].__x);
        reference_loss(c.type, d2, c.thresh, &e, &g);
      }
      reference[i] = e;
      reference[n + i] = g;
    }
    check_on_backends(
        [&](void* h) {
          Tensor x(h, input), delta(h, n), error(h, n);
          Buffer<float> t(h, truth);
          delta.poison();
          error.poison();
          if (c.type == 0) cost_l2(h, n, x, t, delta, error, c.thresh);
          if (c.type == 1) cost_l1(h, n, x, t, delta, error, c.thresh);
          if (c.type == 2) cost_l1smooth(h, n, x, t, delta, error, c.thresh);
          EXPECT_TRUE(delta.guard_intact() && error.guard_intact()) << c.name;
          std::vector<Ftype> out = error.download();
          const std::vector<Ftype> d = delta.download();
          out.insert(out.end(), d.begin(), d.end());
          return out;
        },
        reference, kLossTol, kLossTol, c.name);
  }
}

TEST(CostKernels, FocalCrossEntropyMatchesFloat64AndReducesToTruthMinusP) {
  const int n = 2000;
  const double eps = 1e-5;
  struct Case {
    float gamma, pscale, nscale;
  } cases[] = {{0.f, 1.f, 1.f}, {2.f, 1.f, 1.f}, {1.5f, 0.75f, 2.f}};
  for (const Case& c : cases) {
    std::vector<Ftype> input = random_halves(n, 0.f, 1.f);
    input[0] = Ftype{float2half_cpu(0.f)};  // clamped to eps
    input[1] = Ftype{float2half_cpu(1.f)};
    std::vector<float> truth = random_floats(n, 0.f, 1.f);
    for (int i = 0; i < n; i += 2) truth[i] = truth[i] < 0.5f ? 0.f : 1.f;  // hard and soft targets
    std::vector<double> reference(2 * (size_t)n);
    for (int i = 0; i < n; ++i) {
      const double p = std::min(std::max((double)half2float_cpu(input[i].__x), eps), 1 - eps), q = 1 - p, y = truth[i];
      const double fp = std::pow(q, c.gamma), fn = std::pow(p, c.gamma);
      reference[i] = -(c.pscale * y * fp * std::log(p) + c.nscale * (1 - y) * fn * std::log(q));
      reference[n + i] = c.pscale * y * fp * q - c.nscale * (1 - y) * fn * p;
      if (c.gamma == 0 && c.pscale == 1 && c.nscale == 1) EXPECT_NEAR(reference[n + i], y - p, 1e-12);
    }
    check_on_backends(
        [&](void* h) {
          Tensor x(h, input), delta(h, n), error(h, n);
          Buffer<float> t(h, truth);
          cost_xentropy(h, n, x, t, delta, error, (float)eps, c.gamma, c.pscale, c.nscale);
          std::vector<Ftype> out = error.download();
          const std::vector<Ftype> d = delta.download();
          out.insert(out.end(), d.begin(), d.end());
          return out;
        },
        reference, kXentTol, kXentTol, "xentropy");
  }
}

class CostLayerTest : public OnEachBackend {};

TEST_P(CostLayerTest, CostIsErrorPerSampleAndBackwardAddsScaledGradient) {
  const int batch = 3, inputs = 40, n = batch * inputs;
  auto l = make_layer(handle(), ORVA::TRAIN, "cost", "type=L2\nscale=0.5\n", batch, inputs, 1, 1);
  EXPECT_EQ(l->_outputs, inputs);

  const std::vector<Ftype> x = random_halves(n, -1.f, 1.f), prev = random_halves(n, -1.f, 1.f);
  std::vector<float> truth = random_floats(n, -1.f, 1.f);
  Buffer<Ftype> input(handle(), x), prev_delta(handle(), prev);
  ORVA::NetworkParams p;
  p.input = input;
  p.batch = batch;
  l->forward(p);  // no truth: nothing happens
  EXPECT_EQ(l->cost, -1.f);
  p.truth = truth.data();
  l->forward(p);
  p.delta = prev_delta;
  l->backward(p);

  double sum = 0;
  std::vector<double> expect(n);
  for (int i = 0; i < n; ++i) {
    const double d = half2float_cpu(float2half_cpu(truth[i])) - half2float_cpu(x[i].__x);
    sum += d * d;
    expect[i] = half2float_cpu(prev[i].__x) + 0.5 * d;
  }
  EXPECT_NEAR(l->cost, sum / batch, sum / batch * kLossTol);
  EXPECT_TRUE(NearL2(expect, prev_delta.download(), kLossTol));
}

INSTANTIATE_TEST_SUITE_P(Backends, CostLayerTest, ::testing::ValuesIn(test_backends()), backend_param_name);

TEST(CostLayer, KeysAndModelRecord) {
  ORVA::Network net(ORVA::TRAIN, 2, -1);
  net.version = 0x40000;  // the base record is read for format 3.0 and later
  void* h = net.getHandle();
  struct Case {
    const char* keys;
    int ctype;
  } cases[] = {{"", 0}, {"type=L1\n", 1}, {"type=L1s\n", 2}, {"type=xentropy\n", 3}, {"type=l2\n", -1}};
  for (const Case& c : cases) {
    const std::string path = temp_path("cost.cfg");
    write_file(path, std::string("[cost]\ngamma=2\nthresh=0.25\nneg_scale=3\n") + c.keys);
    ConfigReader cfg;
    ASSERT_EQ(cfg.load(path.c_str()), 0);
    ORVA::InputParams ip;
    ip.batch = 2;
    ip.inputs = 8;
    ip.nsect = 0;
    ip.net = &net;
    ORVA::CostLayer a(ORVA::TRAIN, h);
    a.parseConfig(cfg, ip);
    EXPECT_EQ(a._ctype, c.ctype) << c.keys;
    EXPECT_EQ(a._gamma, 2.f);

    // An unknown type computes nothing: the cost is the sum of the zeroed errors.
    std::vector<float> truth(16, 1.f);
    Buffer<Ftype> input(h, random_halves(16, -1.f, 1.f));
    ORVA::NetworkParams p;
    p.input = input;
    p.truth = truth.data();
    p.batch = 2;
    a.forward(p);
    if (c.ctype < 0) EXPECT_EQ(a.cost, 0.f);
    else EXPECT_GT(a.cost, 0.f);

    // gamma, pos_scale and bias are not stored: they come back at their defaults.
    const std::string file = temp_path("cost.bin");
    FILE* f = fopen(file.c_str(), "wb");
    a.saveConfig(f);
    fclose(f);
    ORVA::CostLayer b(ORVA::TRAIN, h);
    f = fopen(file.c_str(), "rb");
    b.loadConfig(f, ip);
    fclose(f);
    EXPECT_EQ(b._ctype, c.ctype);
    EXPECT_EQ(b._thresh, 0.25f);
    EXPECT_EQ(b._nscale, 3.f);
    EXPECT_EQ(b._gamma, 0.f);
  }
}

}  // namespace
