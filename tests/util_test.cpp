// Messages, the generator, aligned memory and the float reductions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "orva/orva.h"
#include "orva/util.h"

namespace {

// Restores the process-wide generator and message level whatever a test does.
class Globals : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_state = _qrstate_;
    saved_level = ORVA::_msg_level;
  }
  void TearDown() override {
    _qrstate_ = saved_state;
    ORVA::setMsgLevel(saved_level);
  }
  uint64_t saved_state;
  int saved_level;
};

// The generator written out once more, from its definition.
unsigned reference_draw(uint64_t& state) {
  uint32_t z = (uint32_t)state, w = (uint32_t)(state >> 32);
  if (!z) z = 0xAAAA;
  if (!w) w = 0xBBBB;
  z = 36969u * (z & 0xFFFF) + (z >> 16);
  w = 18000u * (w & 0xFFFF) + (w >> 16);
  state = ((uint64_t)w << 32) | z;
  return ((z << 16) + w) & 0x7FFFFFFF;
}

using Generator = Globals;

TEST_F(Generator, DrawsAndSeedsFollowTheDefinition) {
  sqrand(0);
  uint64_t ref = 0x12345678000FFFFFull;
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(qrand(), reference_draw(ref)) << i;
  sqrand(1);  // 1 x the initial state is the initial state
  ref = 0x12345678000FFFFFull;
  EXPECT_EQ(qrand(), reference_draw(ref));
  sqrand(0xFFFFFFFFu);  // the product wraps modulo 2^64
  EXPECT_EQ(_qrstate_, (uint64_t)0xFFFFFFFFu * 0x12345678000FFFFFull);
  // a zero state draws as the fixed registers and leaves zero behind
  uint64_t word = 0;
  ref = 0;
  EXPECT_EQ(qrand_r(&word), reference_draw(ref));
  EXPECT_EQ(word, ref);
  EXPECT_NE(word, 0u);
}

TEST_F(Generator, UniformNormalAndScaleDraws) {
  sqrand(7);
  for (int i = 0; i < 10000; ++i) {
    const float u = rand_uniform(3, 1);
    ASSERT_GE(u, 1.0f);
    ASSERT_LT(u, 3.0f);
  }
  // argument order does not matter
  sqrand(11);
  const float x = rand_uniform(1, 3);
  sqrand(11);
  EXPECT_EQ(rand_uniform(3, 1), x);
  EXPECT_EQ(rand_uniform(2, 2), 2.0f);
  EXPECT_EQ(rand_scale(1), 1.0f);

  sqrand(5);
  double sum = 0, sq = 0;
  const int n = 20000;
  for (int i = 0; i < n; ++i) {
    const double v = rand_normal(2.0f);
    ASSERT_TRUE(std::isfinite(v));
    sum += v, sq += v * v;
  }
  EXPECT_NEAR(sum / n, 0.0, 0.1);
  EXPECT_NEAR(std::sqrt(sq / n), 2.0, 0.1);

  int above = 0;
  for (int i = 0; i < 2000; ++i) {
    const float s = rand_scale(1.5f);
    ASSERT_GT(s, 1 / 1.5f - 1e-6f);
    ASSERT_LT(s, 1.5f);
    above += s >= 1;
  }
  EXPECT_GT(above, 800);
  EXPECT_LT(above, 1200);
}

TEST(AlignedMemory, BlocksAreAlignedAndZeroed) {
  for (size_t size : {1, 63, 64, 100, 4097}) {
    unsigned char* p = static_cast<unsigned char*>(calloc_aligned(size, 3));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
    for (size_t i = 0; i < size * 3; ++i) ASSERT_EQ(p[i], 0) << i;
    free_aligned(p);
    void* q = malloc_aligned(size);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 64, 0u);
    free_aligned(q);
  }
  EXPECT_EQ(calloc_aligned(SIZE_MAX / 2, 4), nullptr);  // the product would wrap
}

TEST(FloatReductions, SumAndMagnitude) {
  std::vector<float> a = {1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(sum_array(a.data(), 7), 28.0f);
  EXPECT_EQ(sum_array(a.data(), 0), 0.0f);
  EXPECT_EQ(mag_array(a.data(), -5), 0.0f);
  EXPECT_FLOAT_EQ(mag_array(a.data(), 7), std::sqrt(140.0f));
  // four lanes, combined pairwise, then the tail: 1e8 + 1 loses the 1 only in one order
  std::vector<float> lanes = {1e8f, 1, -1e8f, 1, 1};
  EXPECT_EQ(sum_array(lanes.data(), 5), ((1e8f + 1.0f) + (-1e8f + 1.0f)) + 1.0f);
}

using Messages = Globals;

TEST_F(Messages, BannerAndLevelGate) {
  ::testing::internal::CaptureStderr();
  { ORVA::Network net(ORVA::TEST, 1, -1); }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[ORVA v4.0]\n");
  ORVA::setMsgLevel(4);
  ::testing::internal::CaptureStderr();
  { ORVA::Network net(ORVA::TEST, 1, -1); }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(Messages, ErrorLineNamesRelativePathSignatureAndLine) {
  ORVA::setMsgLevel(4);  // error lines are never gated
  ::testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  ORVA_ERROR("bad value %d", 42);
  const std::string out = ::testing::internal::GetCapturedStderr();
  const std::string expect = "[tests/util_test.cpp virtual void {anonymous}::Messages_ErrorLineNamesRelativePathSignatureAndLine_Test::TestBody():" +
                             std::to_string(line) + "] ERROR: bad value 42\n";
  EXPECT_EQ(out, expect);
}

}  // namespace
