#include "backend_fixture.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace orva_test {

std::vector<int> test_backends() {
  std::vector<int> v = {-1};
  if (cuda_device_count() > 0) v.push_back(0);
  return v;
}

std::string backend_param_name(const ::testing::TestParamInfo<int>& info) {
  if (info.param < 0) return "host";
  return (cuda_emulated() ? "cudaemu" : "cuda") + std::to_string(info.param);
}

uint32_t test_seed() {
  static const uint32_t seed = [] {
    const char* env = getenv("ORVA_TEST_SEED");
    uint32_t s = env ? (uint32_t)strtoul(env, nullptr, 0)
                     : (uint32_t)std::chrono::steady_clock::now().time_since_epoch().count();
    fprintf(stderr, "test seed: ORVA_TEST_SEED=%u\n", s);
    return s;
  }();
  return seed;
}

void OnEachBackend::SetUp() {
  const ORVA::BackendKind kind = create_handle(&_ctx, GetParam());
  if (GetParam() >= 0) ASSERT_EQ(kind, ORVA::BackendKind::CUDA) << "CUDA device " << GetParam() << " did not open";
}

// A GPU run (ORVA_REQUIRE_CUDA set) must really have a CUDA device to compare against.
TEST(Backends, CudaPresentWhenRequired) {
  if (!getenv("ORVA_REQUIRE_CUDA")) GTEST_SKIP() << "no GPU required in this run";
  ASSERT_TRUE(cuda_compiled()) << "the library was built without the CUDA backend";
  ASSERT_FALSE(cuda_emulated()) << "the library's CUDA backend is the emulated one, not a GPU";
  ASSERT_GT(cuda_device_count(), 0) << "no CUDA device visible";
}

}  // namespace orva_test
