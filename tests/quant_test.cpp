// 8-bit quantisation: thresholds, both mappings, round trips and the error report, on each
// backend.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "backend_fixture.h"
#include "harness.h"
#include "orva/blas.h"

namespace {

using orva_test::Buffer;
using orva_test::Tensor;

class Quantization : public orva_test::OnEachBackend {};
ORVA_ON_EACH_BACKEND(Quantization);

double max_abs(const std::vector<double>& v) {
  double m = 0;
  for (double x : v) m = std::max(m, std::fabs(x));
  return m;
}

// A restored value may miss by half a step, plus the rounding of the restored value to half.
void expect_within_half_step(const std::vector<double>& x, const std::vector<double>& back, double step) {
  for (size_t i = 0; i < x.size(); ++i)
    ASSERT_LE(std::fabs(back[i] - x[i]), step / 2 * (1 + 1e-5) + std::fabs(x[i]) * std::ldexp(1.0, -11))
        << "value " << x[i] << " came back as " << back[i];
}

TEST_P(Quantization, WeightsRoundTripWithinHalfAStep) {
  const size_t n = 10000;
  const std::vector<Ftype> w = orva_test::random_halves(n, -3, 2);
  const std::vector<double> wd = orva_test::to_doubles(w);
  Tensor tw(handle(), w), back(handle(), n);
  bool is_unsigned = true;
  const float t = quant_thresh(handle(), tw, (int)n, &is_unsigned);
  EXPECT_EQ(t, max_abs(wd));
  EXPECT_FALSE(is_unsigned);

  Buffer<signed char> q(handle(), n + 8);
  cuda_memset(handle(), q, 0x55, n + 8);
  quant_int8(handle(), tw, (int)n, t, q);
  const std::vector<signed char> qs = q.download();
  for (size_t i = 0; i < n; ++i) {
    ASSERT_GE(qs[i], -127) << i;
    // the nearest step, except where the product sits on a tie
    ASSERT_LE(std::fabs(qs[i] - wd[i] * 127 / t), 0.5 + 1e-4) << "value " << wd[i];
  }
  EXPECT_EQ(qs[n], 0x55) << "wrote past the end";
  // the extreme value lands on the end of the range
  const size_t extreme = std::max_element(wd.begin(), wd.end(), [](double a, double b) {
                           return std::fabs(a) < std::fabs(b);
                         }) - wd.begin();
  EXPECT_EQ(std::abs(qs[extreme]), 127);

  quant_float(handle(), q.get(), (int)n, t / 127, back);
  expect_within_half_step(wd, orva_test::to_doubles(back.download()), t / 127.0);
  EXPECT_TRUE(back.guard_intact());
}

TEST_P(Quantization, UnsignedInputsUseTheFullByte) {
  const size_t n = 8000;
  std::vector<Ftype> x = orva_test::random_halves(n, 0, 6);
  Tensor tx(handle(), x), back(handle(), n);
  bool is_unsigned = false;
  const float iq = quant_thresh(handle(), tx, (int)n, &is_unsigned);
  EXPECT_TRUE(is_unsigned);
  Buffer<unsigned char> q(handle(), n);
  quant_uint8(handle(), tx, (int)n, iq, q);
  const std::vector<unsigned char> qs = q.download();
  EXPECT_EQ(*std::max_element(qs.begin(), qs.end()), 254);
  quant_float(handle(), q.get(), (int)n, iq / 254, back);
  // twice the resolution of the signed mapping for the same threshold
  expect_within_half_step(orva_test::to_doubles(x), orva_test::to_doubles(back.download()), iq / 254.0);
}

TEST_P(Quantization, PinnedSteps) {
  // With thresholds 127 and 254 a step is exactly 1: ties go to even, the ends clamp, NaN is 0.
  const std::vector<float> x = {1.5f, 2.5f, -0.4f, -2.5f, 200.f, -200.f, NAN, 126.5f};
  Tensor tx(handle(), orva_test::to_halves(x));
  Buffer<signed char> s(handle(), x.size());
  Buffer<unsigned char> u(handle(), x.size()), neg(handle(), x.size());
  quant_int8(handle(), tx, (int)x.size(), 127.f, s);
  quant_uint8(handle(), tx, (int)x.size(), 254.f, u);
  quant_uint8(handle(), tx, (int)x.size(), -127.f, neg);
  const std::vector<signed char> want_s = {2, 2, 0, -2, 127, -127, 0, 126};
  const std::vector<unsigned char> want_u = {2, 2, 0, 0, 200, 0, 0, 126};
  const std::vector<signed char> got_s = s.download();
  const std::vector<unsigned char> got_u = u.download(), got_neg = neg.download();
  for (size_t i = 0; i < x.size(); ++i) {
    EXPECT_EQ(got_s[i], want_s[i]) << "signed " << x[i];
    EXPECT_EQ(got_u[i], want_u[i]) << "unsigned " << x[i];
    // a negative input threshold is the signed mapping, bytes in two's complement
    EXPECT_EQ((signed char)got_neg[i], want_s[i]) << "signed input " << x[i];
  }
}

TEST_P(Quantization, ThresholdIgnoresNaNAndZeroTensorsStayZero) {
  Tensor nan_tensor(handle(), orva_test::to_halves(std::vector<float>{0.5f, NAN, -0.25f}));
  bool is_unsigned = true;
  EXPECT_EQ(quant_thresh(handle(), nan_tensor, 3, &is_unsigned), 0.5f);
  EXPECT_FALSE(is_unsigned);

  const size_t n = 600;
  Tensor zeros(handle(), std::vector<Ftype>(n, Ftype{0}));
  const float t = quant_thresh(handle(), zeros, (int)n, &is_unsigned);
  EXPECT_EQ(t, 0.f);
  EXPECT_TRUE(is_unsigned);
  Buffer<signed char> q(handle(), n);
  cuda_memset(handle(), q, 0x55, n);
  quant_int8(handle(), zeros, (int)n, t, q);
  for (signed char v : q.download()) ASSERT_EQ(v, 0);
  EXPECT_EQ(get_qerror(handle(), zeros, (int)n, t), 0.f);
  EXPECT_EQ(get_qerror(handle(), zeros, -1, t), -1.f);
  EXPECT_EQ(quant_thresh(handle(), zeros, -1, &is_unsigned), -1.f);
}

TEST_P(Quantization, ErrorReportMatchesTheReference) {
  const size_t n = 20000;
  const std::vector<Ftype> x = orva_test::random_halves(n, -2, 2);
  const std::vector<double> xd = orva_test::to_doubles(x);
  Tensor tx(handle(), x);
  for (double t : {max_abs(xd), 0.5 * max_abs(xd)}) {
    double sum = 0;
    for (double v : xd) {
      const double q = std::max(-127.0, std::min(127.0, std::nearbyint(v * 127 / t)));
      sum += std::fabs(v - q * t / 127);
    }
    const double want = sum / n;
    const float got = get_qerror(handle(), tx, (int)n, (float)t);
    // float sums over 20000 terms on the device, double on the host: 1e-4 relative covers both
    EXPECT_NEAR(got, want, want * 1e-4) << "thresh " << t;
  }
  // a full-range threshold can miss by no more than half a step on average
  EXPECT_LE(get_qerror(handle(), tx, (int)n, (float)max_abs(xd)), max_abs(xd) / 254);
}

}  // namespace
