// Device context: backend selection, the launch grid, memory and tensor file I/O.
#include <gtest/gtest.h>

#include <filesystem>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "harness.h"
#include "orva/cuda.h"
#include "orva/util.h"
#include "temp_dir.h"

namespace {

TEST(LaunchGrid, FollowsTheBlockRule) {
  auto eq = [](dim3_t g, unsigned x, unsigned y) { return g.x == x && g.y == y && g.z == 1; };
  EXPECT_TRUE(eq(cuda_gridsize(1), 1, 1));
  EXPECT_TRUE(eq(cuda_gridsize(512), 1, 1));
  EXPECT_TRUE(eq(cuda_gridsize(513), 2, 1));
  EXPECT_TRUE(eq(cuda_gridsize(65535ull * 512), 65535, 1));
  EXPECT_TRUE(eq(cuda_gridsize(65535ull * 512 + 1), 256, 256));
  EXPECT_TRUE(eq(cuda_gridsize(0), 0, 1));  // callers never launch for zero elements
  // a two-dimensional grid always covers n, never by a whole extra row
  for (size_t n : {65536ull * 512, 100000000ull, 1ull << 31, 3000000007ull}) {
    const dim3_t g = cuda_gridsize(n);
    const size_t threads = (size_t)g.x * g.y * 512;
    EXPECT_GE(threads, n) << n;
    EXPECT_LT(threads - n, (size_t)g.x * 512) << n;
    EXPECT_LE(g.x, 65535u);
  }
}

TEST(BackendSelection, NegativeIndexIsHostAndMissingDeviceFallsBack) {
  CudaHandle h{};
  EXPECT_EQ(create_handle(&h, -1), ORVA::BackendKind::HOST);
  EXPECT_STREQ(handle_name(&h), "host");
  EXPECT_EQ(h.stream, nullptr);
  destroy_handle(&h);

  const int saved = ORVA::_msg_level;
  ORVA::setMsgLevel(ALERT);  // the default level
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(create_handle(&h, 99), ORVA::BackendKind::HOST);
  const std::string out = ::testing::internal::GetCapturedStderr();
  ORVA::setMsgLevel(saved);
  destroy_handle(&h);
  EXPECT_NE(out.find("WARNING: CUDA device 99 is not available"), std::string::npos) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
}

class TensorFile : public orva_test::OnEachBackend {
 protected:
  std::string path;
  void SetUp() override {
    OnEachBackend::SetUp();
    path = orva_test::temp_path("tensor.bin");
  }
  void TearDown() override {
    std::remove(path.c_str());
    OnEachBackend::TearDown();
  }
  long file_size() { return (long)std::filesystem::file_size(path); }
};

// Sizes above 65536 elements cross the pieces the transfers are staged in.
TEST_P(TensorFile, HalfTensorsTravelAsFloatsAndComeBackExact) {
  const size_t n = 70001;
  std::vector<Ftype> values = orva_test::random_halves(n, -100.f, 100.f);
  orva_test::Tensor src(handle(), values), dst(handle(), n);
  FILE* f = fopen(path.c_str(), "wb");
  cuda_fwrite(handle(), src.get(), n, f);
  fclose(f);
  EXPECT_EQ(file_size(), (long)(4 * n));  // twice the tensor's size in memory

  // the file holds little-endian floats equal to the halves
  f = fopen(path.c_str(), "rb");
  std::vector<float> floats(n);
  ASSERT_EQ(fread(floats.data(), 4, n, f), n);
  fclose(f);
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(floats[i], half2float_cpu(values[i].__x)) << i;

  f = fopen(path.c_str(), "rb");
  cuda_fread(handle(), dst.get(), n, f);
  fclose(f);
  std::vector<Ftype> back = dst.download();
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(back[i].__x, values[i].__x) << i;
  EXPECT_TRUE(dst.guard_intact());

  // raw tensors keep their bytes
  std::vector<int> ints(n);
  for (size_t i = 0; i < n; ++i) ints[i] = (int)(i * 2654435761u);
  orva_test::Buffer<int> isrc(handle(), ints), idst(handle(), n);
  f = fopen(path.c_str(), "wb");
  cuda_fwrite(handle(), isrc.get(), sizeof(int), n, f);
  fclose(f);
  EXPECT_EQ(file_size(), (long)(n * sizeof(int)));
  f = fopen(path.c_str(), "rb");
  cuda_fread(handle(), idst.get(), sizeof(int), n, f);
  fclose(f);
  EXPECT_EQ(idst.download(), ints);
}

TEST_P(TensorFile, ShortReadThrowsTheCountOfWholeItems) {
  const size_t n = 70000, whole = 66000;
  std::vector<float> floats(n);
  for (size_t i = 0; i < n; ++i) floats[i] = (float)(i % 100) - 50.5f;
  FILE* f = fopen(path.c_str(), "wb");
  fwrite(floats.data(), 1, 4 * whole + 2, f);  // whole floats and half of one more
  fclose(f);
  orva_test::Tensor dst(handle(), n);
  f = fopen(path.c_str(), "rb");
  EXPECT_EQ(orva_test::thrown_count([&] { cuda_fread(handle(), dst.get(), n, f); }), (long)whole);
  fclose(f);
  // the prefix that was read arrived
  std::vector<Ftype> back = dst.download();
  for (size_t i = 0; i < whole; ++i) ASSERT_EQ(half2float_cpu(back[i].__x), floats[i]) << i;

  // a raw read and the host reads report the same way
  f = fopen(path.c_str(), "rb");
  std::vector<unsigned char> bytes(4 * n);
  EXPECT_EQ(orva_test::thrown_count([&] { chk_fread(bytes.data(), 4, n, f); }), (long)whole);
  orva_test::Buffer<int> raw(handle(), n);
  rewind(f);
  EXPECT_EQ(orva_test::thrown_count([&] { cuda_fread(handle(), raw.get(), 4, n, f); }), (long)whole);
  fclose(f);

  // host halves keep their width; a write that fails throws its count
  const std::vector<_half> h = {fp_1, fp_2, fp_6};
  f = fopen(path.c_str(), "wb");
  chk_fwrite(h.data(), h.size(), f);
  fclose(f);
  EXPECT_EQ(file_size(), 6);
  std::vector<_half> hback(3);
  f = fopen(path.c_str(), "rb");
  chk_fread(hback.data(), hback.size(), f);
  fclose(f);
  for (size_t i = 0; i < h.size(); ++i) EXPECT_EQ(hback[i].__x, h[i].__x);
  if (FILE* full = fopen("/dev/full", "wb")) {
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_THROW(chk_fwrite(h.data(), 2, 3, full), size_t);
    fclose(full);
  }
}

// Pushes, pulls and fills run under every other test; what they don't reach is a copy from
// device to device (only the CUDA 8-bit staging uses it), an allocation that fails and the
// random fill.
TEST_P(TensorFile, CopyFailedAllocationsAndRandomFill) {
  std::vector<unsigned char> a(1000), b(1000);
  for (size_t i = 0; i < a.size(); ++i) a[i] = (unsigned char)(i * 13);
  orva_test::Buffer<unsigned char> d1(handle(), a), d2(handle(), b);
  cuda_copy(handle(), d2.get(), d1.get(), a.size());
  EXPECT_EQ(d2.download(), a);
  // an allocation that fails is reported and thrown, never handed out
  ::testing::internal::CaptureStderr();
  EXPECT_THROW(cuda_malloc(handle(), SIZE_MAX / 2), std::bad_alloc);
  EXPECT_THROW(cuda_calloc(handle(), SIZE_MAX / 2, 4), std::bad_alloc);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("can't allocate"), std::string::npos);

  float* r = static_cast<float*>(cuda_malloc(handle(), 4096 * 4));
  cuda_random(handle(), r, 4096);
  std::vector<float> v(4096);
  cuda_pull(handle(), v.data(), r, v.size() * 4);
  cuda_sync(handle());
  cuda_free(handle(), r);
  double mean = 0;
  for (float x : v) {
    ASSERT_GT(x, 0.0f);
    ASSERT_LE(x, 1.0f);
    mean += x / v.size();
  }
  EXPECT_NEAR(mean, 0.5, 0.05);
}

ORVA_ON_EACH_BACKEND(TensorFile);

}  // namespace
