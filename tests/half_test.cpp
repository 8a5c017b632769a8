// Exact host conversions between float and half, and the buffer conversions on each backend.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "backend_fixture.h"
#include "harness.h"
#include "kernels/half_lanes.h"
#include "orva/float16.h"

namespace {

float bits_to_float(uint32_t b) {
  float f;
  memcpy(&f, &b, 4);
  return f;
}

uint32_t float_bits(float f) {
  uint32_t b;
  memcpy(&b, &f, 4);
  return b;
}

bool is_half_nan(unsigned short h) { return (h & 0x7C00) == 0x7C00 && (h & 0x3FF); }

// Exact value of a half pattern, computed independently of the tables.
double half_value(unsigned short h) {
  const int e = (h >> 10) & 0x1F, m = h & 0x3FF;
  const double s = (h & 0x8000) ? -1.0 : 1.0;
  if (e == 0) return s * std::ldexp((double)m, -24);
  if (e == 31) return m ? NAN : s * INFINITY;
  return s * std::ldexp(1024.0 + m, e - 25);
}

TEST(HalfConversion, EveryPatternWidensExactlyAndRoundTrips) {
  for (uint32_t p = 0; p < 65536; ++p) {
    const unsigned short h = (unsigned short)p;
    const float f = half2float_cpu(h);
    if (is_half_nan(h)) {
      ASSERT_TRUE(std::isnan(f)) << std::hex << p;
      // the payload moves up by 13 bits and survives the way back
      ASSERT_EQ(float_bits(f) & 0x7FFFFF, (uint32_t)(h & 0x3FF) << 13) << std::hex << p;
      ASSERT_EQ(float2half_cpu(f), h) << std::hex << p;
      continue;
    }
    ASSERT_EQ((double)f, half_value(h)) << std::hex << p;
    ASSERT_EQ(std::signbit(f), (h & 0x8000) != 0) << std::hex << p;
    ASSERT_EQ(float2half_cpu(f), h) << std::hex << p;
  }
}

TEST(HalfConversion, RoundsToNearestWithTiesAwayFromZero) {
  // ties: 1 + 2^-11 lies half-way between 0x3C00 and 0x3C01; even rounding would keep 0x3C00
  EXPECT_EQ(float2half_cpu(1.0f + std::ldexp(1.0f, -11)), 0x3C01);
  EXPECT_EQ(float2half_cpu(-(1.0f + std::ldexp(1.0f, -11))), 0xBC01);
  EXPECT_EQ(float2half_cpu(1.0f + 3 * std::ldexp(1.0f, -11)), 0x3C02);
  // just below a tie goes down
  EXPECT_EQ(float2half_cpu(std::nextafter(1.0f + std::ldexp(1.0f, -11), 0.0f)), 0x3C00);
  // overflow edge: 65520 is the first float that becomes infinity
  EXPECT_EQ(float2half_cpu(65504.0f), 0x7BFF);
  EXPECT_EQ(float2half_cpu(65519.99f), 0x7BFF);
  EXPECT_EQ(float2half_cpu(65520.0f), 0x7C00);
  EXPECT_EQ(float2half_cpu(-65520.0f), 0xFC00);
  EXPECT_EQ(float2half_cpu(1e30f), 0x7C00);
  // underflow edge: [2^-25, 2^-24) lifts to the smallest subnormal, below it becomes zero
  EXPECT_EQ(float2half_cpu(std::ldexp(1.0f, -25)), 0x0001);
  EXPECT_EQ(float2half_cpu(-std::ldexp(1.0f, -25)), 0x8001);
  EXPECT_EQ(float2half_cpu(std::ldexp(1.5f, -25)), 0x0001);
  EXPECT_EQ(float2half_cpu(std::nextafter(std::ldexp(1.0f, -25), 0.0f)), 0x0000);
  EXPECT_EQ(float2half_cpu(-std::ldexp(1.0f, -30)), 0x8000);
  // subnormal ties round away too: 1.5 * 2^-24 goes to 2 * 2^-24
  EXPECT_EQ(float2half_cpu(std::ldexp(1.5f, -24)), 0x0002);
  // the largest subnormal carries into the smallest normal
  EXPECT_EQ(float2half_cpu(std::ldexp(1023.5f, -24)), 0x0400);
}

TEST(HalfConversion, InfinityAndNanKeepTheirClass) {
  EXPECT_EQ(float2half_cpu(INFINITY), 0x7C00);
  EXPECT_EQ(float2half_cpu(-INFINITY), 0xFC00);
  // the top ten mantissa bits carry over; rounding never turns a NaN into something else
  EXPECT_EQ(float2half_cpu(bits_to_float(0x7FC00000)), 0x7E00);
  EXPECT_EQ(float2half_cpu(bits_to_float(0xFF802000)), 0xFC01);
  EXPECT_EQ(float2half_cpu(bits_to_float(0x7F803FFF)), 0x7C01);
  // a NaN whose payload sits only in the low 13 bits becomes infinity
  EXPECT_EQ(float2half_cpu(bits_to_float(0x7F800001)), 0x7C00);
}

TEST(HalfConversion, ArrayConversionsWorkInPlace) {
  const size_t n = 1001;
  std::vector<float> values = orva_test::random_floats(n, -70000.f, 70000.f);
  std::vector<float> buf = values;
  // narrowing in place: the first 2n bytes hold the halves
  float2half_cpu(buf.data(), reinterpret_cast<_half*>(buf.data()), n);
  const _half* halves = reinterpret_cast<const _half*>(buf.data());
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(halves[i].__x, float2half_cpu(values[i])) << i;
  // widening in place: the floats come back in the whole buffer
  half2float_cpu(buf.data(), halves, n);
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(float_bits(buf[i]), float_bits(half2float_cpu(float2half_cpu(values[i])))) << i;
}

// The host twins' conversions: the instructions this build uses (F16C, Arm's FCVT) against
// the portable ones other CPUs use, on every half and on every rounding boundary.
TEST(HalfConversion, InstructionsAndPortablePathAgree) {
  for (uint32_t p = 0; p < 65536; ++p) {
    const _half h{(unsigned short)p};
    ASSERT_EQ(float_bits(cpu::h2f(h)), float_bits(cpu::h2f_soft(h))) << std::hex << p;
    const float f = half2float_cpu(h.__x);
    ASSERT_EQ(cpu::f2h(f).__x, cpu::f2h_soft(f).__x) << std::hex << p;
    if ((p & 0x7FFF) >= 0x7C00) continue;
    // the tie above h in magnitude and the floats either side of it
    const int e = (int)(p >> 10 & 0x1F);
    const float tie = (float)((double)f + std::copysign(std::ldexp(1.0, e ? e - 26 : -25), (double)f));
    for (float x : {tie, std::nextafter(tie, 0.f), std::nextafter(tie, 2 * tie)})
      ASSERT_EQ(cpu::f2h(x).__x, cpu::f2h_soft(x).__x) << std::hex << p << " " << x;
  }
  // a thinned sweep of all floats: overflow, underflow, NaN payloads
  for (uint64_t b = 0; b < (1ull << 32); b += 4093) {
    const float x = bits_to_float((uint32_t)b);
    ASSERT_EQ(cpu::f2h(x).__x, cpu::f2h_soft(x).__x) << std::hex << b;
  }
}

// Each eight-lane step of the streaming twins is the scalar step on each lane, bit for bit,
// NaN, infinities, signed zeros and subnormals included.
TEST(HalfLanes, EveryStepIsTheScalarStepOnEachLane) {
  std::vector<float> values = orva_test::random_floats(48, -4.f, 4.f);
  const float specials[] = {0.f, -0.f, INFINITY, -INFINITY, NAN, 65504.f, -3e-6f, 6e-8f, 1.f, -1.f, 0.1f, 7.f};
  values.insert(values.begin() + 5, std::begin(specials), std::end(specials));
  std::vector<_half> h(values.size());
  for (size_t i = 0; i < h.size(); ++i) h[i] = cpu::f2h(values[i]);
  auto same = [](float a, float b) { return float_bits(a) == float_bits(b); };
  for (size_t at = 0; at + 17 <= h.size(); at += 5) {
    const _half* x = &h[at];
    const _half* y = &h[h.size() - 8 - at / 2];
    const cpu::Lanes lx = cpu::load8(x), ly = cpu::load8(y);
    float got[8][9];
    _half halves[6][16];
    const cpu::Lanes steps[] = {lx,
                                cpu::round8(cpu::add8(lx, ly)),
                                cpu::sub8(lx, ly),
                                cpu::mul8(lx, cpu::splat8(fp_0_1)),
                                cpu::div8(lx, ly),
                                cpu::pick8(cpu::gt8(lx, ly), lx, ly),
                                cpu::pick8(cpu::lt8(lx, cpu::zero8()), cpu::splat8(fp_1N), lx),
                                cpu::fused8(lx, 0.3f, -0.7f),
                                cpu::load8_even(x)};
    for (int s = 0; s < 9; ++s) {
      float out[8];
      cpu::storef8(out, steps[s]);
      for (int k = 0; k < 8; ++k) got[k][s] = out[k];
    }
    cpu::store8(halves[0], cpu::mul8(lx, ly));
    float wide[16];
    for (int k = 0; k < 16; ++k) wide[k] = cpu::h2f(x[k]);
    cpu::store8(halves[1], cpu::loadf8(wide));
    cpu::split8(x, halves[2], halves[3]);
    cpu::double8(x, halves[4], halves[5]);
    for (int k = 0; k < 8; ++k) {
      const float a = cpu::h2f(x[k]), b = cpu::h2f(y[k]);
      const float want[9] = {a, cpu::h2f(cpu::hadd(x[k], y[k])), a - b, a * cpu::h2f(fp_0_1), a / b,
                             a > b ? a : b, a < 0.f ? -1.f : a, cpu::fused(a, 0.3f, -0.7f), cpu::h2f(x[2 * k])};
      for (int s = 0; s < 9; ++s)
        ASSERT_TRUE(same(got[k][s], want[s])) << "step " << s << " lane " << k << " at " << at << ": " << got[k][s]
                                             << " for " << want[s] << " (" << a << ", " << b << ")";
      EXPECT_EQ(halves[0][k].__x, cpu::hmul(x[k], y[k]).__x) << k;
      EXPECT_EQ(halves[1][k].__x, x[k].__x) << k;
      EXPECT_EQ(halves[2][k].__x, x[2 * k].__x) << k;
      EXPECT_EQ(halves[3][k].__x, x[2 * k + 1].__x) << k;
      for (int r = 4; r < 6; ++r) {
        EXPECT_EQ(halves[r][2 * k].__x, x[k].__x) << k;
        EXPECT_EQ(halves[r][2 * k + 1].__x, x[k].__x) << k;
      }
    }
  }
}

class HalfBuffers : public orva_test::OnEachBackend {};

TEST_P(HalfBuffers, ConvertOnTheBackendLikeTheHost) {
  // Backend conversions round ties to even, the tables away from zero: compare as values
  // with one unit in the last place of slack, and exactly on the way back to float.
  const size_t n = 70001;  // more than one block row of the grid, not a multiple of 512
  std::vector<float> in = orva_test::random_floats(n, -1000.f, 1000.f);
  orva_test::Buffer<float> src(handle(), in), back(handle(), n);
  orva_test::Tensor half(handle(), n);
  float2half_gpu(handle(), src, half, n);
  half2float_gpu(handle(), back, half, n);
  std::vector<Ftype> h = half.download();
  std::vector<float> out = back.download();
  EXPECT_TRUE(half.guard_intact());
  for (size_t i = 0; i < n; ++i) {
    const int diff = (int)h[i].__x - (int)float2half_cpu(in[i]);
    ASSERT_LE(std::abs(diff), 1) << "element " << i << " of " << in[i];
    ASSERT_EQ(out[i], half2float_cpu(h[i].__x)) << i;
  }
}
ORVA_ON_EACH_BACKEND(HalfBuffers);

}  // namespace
