// Activation functions: names and ids, pinned values, and every function, gradient and fused
// bias pass against a float64 reference on each backend.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "harness.h"
#include "kernels/activation_kernel.h"
#include "kernels/half_math.h"
#include "orva/activation.h"
#include "orva/blas.h"

namespace {

using orva_test::NearL2;
using orva_test::Tensor;

// The ids with a function; the others are free slots.
const int kIds[] = {0, 1, 2, 3, 5, 7, 8, 9, 11, 13, 14, 15, 16, 17, 18};

// The slopes of "relie" and "leaky" are the half constants 0x211F and 0x2E66.
const double kRelieSlope = 0.01000213623046875;
const double kLeakySlope = 0.0999755859375;

double ref_softplus(double x) { return x < -20 ? std::exp(x) : (x < 20 ? std::log1p(std::exp(x)) : x); }

double ref_activate(int type, double x) {
  switch (type) {
    case 0: return 1 / (1 + std::exp(-x));
    case 1: return x > 0 ? x : 0;
    case 2: return x > 0 ? x : kRelieSlope * x;
    case 3: return x;
    case 5: return std::tanh(x);
    case 7: return x > 0 ? x : kLeakySlope * x;
    case 8: return x < 0 ? std::expm1(x) : x;
    case 9: return 2 / (1 + std::exp(-x)) - 1;
    case 11: return x < -1 ? -1 : (x > 1 ? 1 : x);
    case 13: return x > 0 ? (x > 6 ? 6 : x) : 0;
    case 14: return x > 0 ? (x > 10 ? 10 : x) : 0;
    case 15: return x * std::tanh(ref_softplus(x));
    case 16: return x / (1 + std::exp(-x));
    case 17: return x * std::min(std::max(x + 3, 0.0), 6.0) / 6;
    case 18: return std::min(std::max(x + 3, 0.0), 6.0) / 6;
  }
  return NAN;
}

double ref_gradient(int type, double y) {
  switch (type) {
    case 0: return (1 - y) * y;
    case 1: return y > 0 ? 1 : 0;
    case 2: return y > 0 ? 1 : kRelieSlope;
    case 3: return 1;
    case 5: return 1 - y * y;
    case 7: return y > 0 ? 1 : kLeakySlope;
    case 8: return y < 0 ? y + 1 : 1;
    case 9: {
      const double u = (y + 1) * 0.5;
      return 2 * (1 - u) * u;
    }
    case 11: return (y > -1 && y < 1) ? 1 : 0;
    case 13: return (y > 0 && y <= 6) ? 1 : 0;
    case 14: return (y > 0 && y <= 10) ? 1 : 0;
    case 15: {
      const double sp = ref_softplus(y), t = std::tanh(sp);
      return y * (t + (1 - t * t) * (1 - std::exp(-sp)));
    }
    case 16: {
      const double s = 1 / (1 + std::exp(-y));
      return s + y * s * (1 - s);
    }
    case 17: return y >= 3 ? 1 : (y > -0.375 ? std::sqrt(9 + 24 * y) / 6 : 0);
    case 18: return (y > 0 && y < 1) ? 1.0 / 6 : 0;
  }
  return NAN;
}

TEST(ActivationType, NamesAndIdsFollowTheTable) {
  const char* names[] = {"logistic", "relu", "relie", "linear", "tanh", "leaky",
                         "elu", "loggy", "hardtan", "relu6", "relu10", "mish", "swish", "hswish", "hsigmoid"};
  for (size_t k = 0; k < 15; ++k) EXPECT_EQ(ActivationType::type(names[k]), kIds[k]) << names[k];
  EXPECT_EQ(ActivationType::type("Leaky"), -1);
  EXPECT_EQ(ActivationType::type("relu "), -1);
  EXPECT_EQ(ActivationType::type(""), -1);
  EXPECT_EQ(ActivationType::type(nullptr), -1);

  int handle_dummy = 0;
  for (int id = -1; id <= 19; ++id) {
    std::unique_ptr<Activation> a(ActivationType::create(id, &handle_dummy));
    const bool named = std::find(std::begin(kIds), std::end(kIds), id) != std::end(kIds);
    ASSERT_EQ(a != nullptr, named) << "id " << id;
    if (a) EXPECT_EQ(a->type, id);
  }
}

class ActivationKernels : public orva_test::OnEachBackend {};
ORVA_ON_EACH_BACKEND(ActivationKernels);

struct Pin {
  int type;
  float in;
  float out;  // NaN: the output must be NaN
};

TEST_P(ActivationKernels, PinnedValues) {
  const Pin values[] = {
      {7, -1.f, -0.0999755859375f}, {2, -1.f, -0.01000213623046875f},
      {13, 6.f, 6.f}, {13, 6.00390625f, 6.f}, {14, 12.f, 10.f},
      // comparisons with NaN are false: the relus clear it, leaky, relie and hardtan keep it
      {1, NAN, 0.f}, {13, NAN, 0.f}, {14, NAN, 0.f}, {7, NAN, NAN}, {2, NAN, NAN}, {11, NAN, NAN},
      {11, 1.5f, 1.f}, {11, -3.f, -1.f}, {11, 0.25f, 0.25f},
      // the far tails go through the exponential's cut-offs and stay exact
      {0, -200.f, 0.f}, {0, 200.f, 1.f}, {5, 100.f, 1.f}, {5, -100.f, -1.f}, {8, -200.f, -1.f},
      {9, 200.f, 1.f}, {9, -200.f, -1.f}, {15, 30.f, 30.f}, {15, -30.f, 0.f}, {0, 0.f, 0.5f},
      // the hard forms: flat beyond -3 and 3, exact at the knees
      {17, -4.f, 0.f}, {17, 3.f, 3.f}, {17, 100.f, 100.f}, {17, -1.5f, -0.375f}, {18, -3.f, 0.f},
      {18, 3.f, 1.f}, {18, 0.f, 0.5f}, {17, NAN, NAN}};
  const Pin gradients[] = {
      {13, 6.f, 1.f}, {13, 6.00390625f, 0.f}, {13, 0.f, 0.f}, {14, 10.f, 1.f}, {14, 10.0078125f, 0.f},
      {11, 1.f, 0.f}, {11, -1.f, 0.f}, {11, 0.5f, 1.f}, {11, NAN, 0.f}, {1, NAN, 0.f},
      {2, -2.f, 0.01000213623046875f}, {7, -2.f, 0.0999755859375f}, {7, 3.f, 1.f},
      {8, -0.5f, 0.5f}, {0, 0.5f, 0.25f}, {5, 0.5f, 0.75f}, {9, 0.f, 0.5f}, {15, 200.f, 200.f},
      {17, 5.f, 1.f}, {17, 0.f, 0.5f}, {17, -0.375f, 0.f}, {18, 0.5f, 0.1666259765625f}, {18, 1.f, 0.f}};
  // Nine copies: the host's eight-wide lanes and its one-at-a-time tail both see the value.
  const int copies = 9;
  for (const Pin& p : values) {
    Tensor x(handle(), orva_test::to_halves(std::vector<float>(copies, p.in)));
    activation_forward(handle(), p.type, x, copies);
    for (float got : orva_test::to_floats(x.download())) {
      if (std::isnan(p.out)) {
        EXPECT_TRUE(std::isnan(got)) << "f" << p.type << "(" << p.in << ") = " << got;
      } else {
        EXPECT_EQ(got, p.out) << "f" << p.type << "(" << p.in << ")";
      }
    }
    EXPECT_TRUE(x.guard_intact());
  }
  for (const Pin& p : gradients) {
    Tensor y(handle(), orva_test::to_halves(std::vector<float>{p.in}));
    Tensor delta(handle(), orva_test::to_halves(std::vector<float>{1.f}));
    activation_gradient(handle(), p.type, y, 1, delta);
    EXPECT_EQ(orva_test::to_floats(delta.download())[0], p.out) << "g" << p.type << "(" << p.in << ")";
  }
}

// Linear (and any id without a function) must not touch memory at all: a poisoned tensor
// stays poisoned, so even an identity kernel would be caught rewriting NaN payloads.
TEST_P(ActivationKernels, LinearLaunchesNothingAndUnknownIdsThrow) {
  const size_t n = 1000;
  Tensor x(handle(), n), delta(handle(), n);
  const std::vector<Ftype> poisoned = x.download();
  std::unique_ptr<Activation> linear(ActivationType::create(3, handle()));
  linear->activate(x, (int)n);
  linear->gradient(x, (int)n, delta);
  for (int bad : {4, 6, 10, 12, -1, 19}) {
    EXPECT_THROW(activation_forward(handle(), bad, x, (int)n), std::runtime_error) << bad;
    EXPECT_THROW(activation_gradient(handle(), bad, x, (int)n, delta), std::runtime_error) << bad;
  }
  cuda_sync(handle());
  const std::vector<Ftype> after_x = x.download(), after_delta = delta.download();
  for (size_t i = 0; i < n; ++i) {
    ASSERT_EQ(after_x[i].__x, poisoned[i].__x) << i;
    ASSERT_EQ(after_delta[i].__x, poisoned[i].__x) << i;
  }
}

// A connected layer's bias pass: one element per filter, more filters than a grid dimension
// other than x can count.
TEST(ActivationReference, FusedPassOverManyFilters) {
  const int batch = 2, filters = 70000, size = 1, type = 7;
  const size_t n = (size_t)batch * filters * size;
  const std::vector<Ftype> x = orva_test::random_halves(n, -4, 4), bias = orva_test::random_halves(filters, -1, 1);
  std::vector<double> sum(n);
  for (size_t i = 0; i < n; ++i) sum[i] = half2float_cpu(x[i].__x) + half2float_cpu(bias[i % filters].__x);
  std::vector<double> ref = orva_test::to_doubles(orva_test::to_halves(sum));
  for (double& r : ref) r = ref_activate(type, r);
  orva_test::check_on_backends(orva_test::on_tensors({bias}, x, [&](void* h, const std::vector<Ftype*>& b, Ftype* t) {
                                 std::unique_ptr<Activation>(ActivationType::create(type, h))->activate(t, b[0], batch, filters, size);
                               }),
                               ref, orva_test::kHalfRounding, orva_test::kHalfRounding, "leaky fused over 70000 filters");
}

// Mostly the working range, plus a sprinkle reaching mish's softplus thresholds at +-20; few
// enough that their size does not drown the relative error of the rest.
std::vector<Ftype> activation_inputs(size_t n) {
  std::vector<Ftype> x = orva_test::random_halves(n, -6, 6);
  const std::vector<Ftype> wide = orva_test::random_halves(n / 100, -24, 24);
  std::copy(wide.begin(), wide.end(), x.begin());
  return x;
}

// One pass of each id over fresh inputs: f, g (times a random delta) and the fused bias pass.
TEST(ActivationReference, EachPassOnEachBackend) {
  const int batch = 3, filters = 4, size = 531;  // size spans two blocks, the second partial
  const size_t n = (size_t)batch * filters * size;
  for (int type : kIds) {
    if (type == 3) continue;  // launches nothing; covered above
    const std::string id = " id " + std::to_string(type);
    const std::vector<Ftype> x = activation_inputs(n), delta = orva_test::random_halves(n, -1, 1);
    const std::vector<Ftype> bias = orva_test::random_halves(filters, -2, 2);
    const std::vector<double> xd = orva_test::to_doubles(x), dd = orva_test::to_doubles(delta);
    const std::vector<double> bd = orva_test::to_doubles(bias);
    std::vector<double> sum(n), ref_f(n), ref_g(n), ref_fused(n);
    for (size_t i = 0; i < n; ++i) sum[i] = xd[i] + bd[(i / size) % filters];
    // The bias addition is one half step; the reference takes it as defined, then applies f.
    const std::vector<double> sum_h = orva_test::to_doubles(orva_test::to_halves(sum));
    for (size_t i = 0; i < n; ++i) {
      ref_f[i] = ref_activate(type, xd[i]);
      ref_g[i] = dd[i] * ref_gradient(type, xd[i]);
      ref_fused[i] = ref_activate(type, sum_h[i]);
    }
    auto run = [&](void* h, int pass) {
      Tensor t(h, x), d(h, delta), b(h, bias);
      std::unique_ptr<Activation> a(ActivationType::create(type, h));
      if (pass == 0) a->activate(t, (int)n);
      if (pass == 1) a->gradient(t, (int)n, d);
      if (pass == 2) a->activate(t, b, batch, filters, size);
      Tensor& out = pass == 1 ? d : t;
      EXPECT_TRUE(out.guard_intact());
      return out.download();
    };
    // f: one rounding to half. g: a chain of up to three half steps, then the multiply.
    // fused: the reference rounds the sum with ties away from zero, the backends to even, so a
    // tie differs by one step before f; one more rounding's worth covers it.
    using namespace orva_test;
    check_on_backends([&](void* h) { return run(h, 0); }, ref_f, kHalfRounding, kHalfRounding, ("f" + id).c_str());
    check_on_backends([&](void* h) { return run(h, 1); }, ref_g, kHalfChain, kHalfChain, ("g" + id).c_str());
    check_on_backends([&](void* h) { return run(h, 2); }, ref_fused, kHalfChain, kHalfRounding,
                      ("fused" + id).c_str());
  }
}

}  // namespace

// The narrowing that host convolutions fuse into their last pass (vector paths chosen at run
// time) gives the bits of the separate steps: round, add the bias, activate. Floats of every
// kind (half subnormals, ties, overflow to infinity, NaN) over lengths with partial blocks.
TEST(ActivationFusedNarrowing, MatchesSeparateStepsBitForBit) {
  std::mt19937 rng(7);
  std::vector<float> src(37);
  std::vector<Ftype> got(src.size());
  for (int type : kIds)
    for (int round = 0; round < 200; ++round) {
      for (float& v : src) {
        const uint32_t bits = (uint32_t)rng();
        std::memcpy(&v, &bits, sizeof v);
        if (rng() % 4) v = std::ldexp((float)(int)(rng() % 4096) - 2048.f, (int)(rng() % 34) - 33);
      }
      const _half b = cpu::f2h(std::ldexp((float)(int)(rng() % 2048) - 1024.f, (int)(rng() % 20) - 19));
      const int n = 1 + (int)(rng() % src.size());
      cpu::narrow_bias_activate_fn(type)(src.data(), got.data(), n, b);
      for (int i = 0; i < n; ++i) {
        const _half want = cpu::activate_value(type, cpu::hadd(cpu::f2h(src[i]), b));
        ASSERT_EQ(want.__x, got[i].__x) << "id " << type << " value " << src[i] << " bias " << cpu::h2f(b);
      }
    }
}
