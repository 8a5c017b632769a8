#include "harness.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <cmath>
#include <cstdlib>

#if ORVA_CUDA_EMULATED
#include "emu/emu_control.h"
#endif

namespace orva_test {

std::mt19937& rng() {
  static std::mt19937 gen;
  static std::string seeded_for;
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "";
  if (name != seeded_for) {
    seeded_for = name;
    std::seed_seq seq{test_seed(), (uint32_t)std::hash<std::string>()(name)};
    gen.seed(seq);
  }
  return gen;
}

std::vector<float> random_floats(size_t n, float lo, float hi) {
  std::uniform_real_distribution<float> d(lo, hi);
  std::vector<float> v(n);
  for (auto& x : v) x = d(rng());
  if (n && lo < 0 && hi > 0 && v[0] == 0) v[0] = hi / 2;
  return v;
}

std::vector<Ftype> random_halves(size_t n, float lo, float hi) { return to_halves(random_floats(n, lo, hi)); }

std::vector<float> to_floats(const std::vector<Ftype>& h) {
  std::vector<float> f(h.size());
  for (size_t i = 0; i < h.size(); ++i) f[i] = half2float_cpu(h[i].__x);
  return f;
}

std::vector<double> to_doubles(const std::vector<Ftype>& h) {
  std::vector<double> f(h.size());
  for (size_t i = 0; i < h.size(); ++i) f[i] = half2float_cpu(h[i].__x);
  return f;
}

std::vector<Ftype> to_halves(const std::vector<float>& f) {
  std::vector<Ftype> h(f.size());
  for (size_t i = 0; i < f.size(); ++i) h[i].__x = float2half_cpu(f[i]);
  return h;
}

std::vector<Ftype> to_halves(const std::vector<double>& f) {
  std::vector<Ftype> h(f.size());
  for (size_t i = 0; i < f.size(); ++i) h[i].__x = float2half_cpu((float)f[i]);
  return h;
}

::testing::AssertionResult NearL2(const std::vector<double>& ref, const std::vector<float>& got, double tol) {
  if (ref.size() != got.size())
    return ::testing::AssertionFailure() << "size " << got.size() << " != reference size " << ref.size();
  double num = 0, den = 0;
  for (size_t i = 0; i < ref.size(); ++i) {
    const double r = ref[i], g = got[i];
    if (std::isnan(g) || std::isnan(r))
      return ::testing::AssertionFailure() << "NaN at " << i << " (got " << g << ", reference " << r << ")";
    if (std::isinf(r) || std::isinf(g)) {
      if (r != g) return ::testing::AssertionFailure() << "infinity mismatch at " << i << ": got " << g << ", reference " << r;
      continue;
    }
    num += (g - r) * (g - r);
    den += r * r;
  }
  const double err = den > 0 ? std::sqrt(num / den) : std::sqrt(num);
  if (err > tol) {
    size_t worst = 0;
    double wd = -1;
    for (size_t i = 0; i < ref.size(); ++i)
      if (std::isfinite(ref[i]) && std::fabs(got[i] - ref[i]) > wd) wd = std::fabs(got[i] - ref[i]), worst = i;
    return ::testing::AssertionFailure() << "relative L2 error " << err << " > " << tol << "; worst at " << worst
                                         << ": got " << got[worst] << ", reference " << ref[worst];
  }
  return ::testing::AssertionSuccess() << "relative L2 error " << err;
}

::testing::AssertionResult NearL2(const std::vector<double>& ref, const std::vector<Ftype>& got, double tol) {
  return NearL2(ref, to_floats(got), tol);
}

::testing::AssertionResult NearL2(const std::vector<Ftype>& ref, const std::vector<Ftype>& got, double tol) {
  return NearL2(to_doubles(ref), to_floats(got), tol);
}

::testing::AssertionResult NearEach(const std::vector<Ftype>& ref, const std::vector<Ftype>& got, double tol) {
  if (ref.size() != got.size())
    return ::testing::AssertionFailure() << "size " << got.size() << " != reference size " << ref.size();
  double sq = 0;
  size_t finite = 0;
  for (const Ftype& r : ref) {
    const double v = half2float_cpu(r.__x);
    if (std::isfinite(v)) sq += v * v, ++finite;
  }
  const double rms = finite ? std::sqrt(sq / finite) : 0;
  for (size_t i = 0; i < ref.size(); ++i) {
    const double r = half2float_cpu(ref[i].__x), g = half2float_cpu(got[i].__x);
    if (std::isnan(g) || std::isnan(r))
      return ::testing::AssertionFailure() << "NaN at " << i << " (got " << g << ", reference " << r << ")";
    if (std::isinf(r) || std::isinf(g)) {
      if (r != g) return ::testing::AssertionFailure() << "infinity mismatch at " << i << ": got " << g << ", reference " << r;
      continue;
    }
    if (std::fabs(g - r) > 4 * tol * std::max(std::fabs(r), rms))
      return ::testing::AssertionFailure() << "element " << i << " of " << ref.size() << ": got " << g
                                           << ", reference " << r << " (result RMS " << rms << ")";
  }
  return ::testing::AssertionSuccess();
}

static const Ftype kPoison = {0x7E00};  // a quiet half NaN

Tensor::Tensor(void* handle, size_t n) : _h(handle), _n(n), _buf(handle, n + kGuard) { poison(); }

Tensor::Tensor(void* handle, const std::vector<Ftype>& values) : Tensor(handle, values.size()) { upload(values); }

void Tensor::upload(const std::vector<Ftype>& values) {
  cuda_push(_h, _buf.get(), values.data(), std::min(values.size(), _n) * sizeof(Ftype));
  cuda_sync(_h);
}

void Tensor::poison() { _buf.upload(std::vector<Ftype>(_n + kGuard, kPoison)); }

std::vector<Ftype> Tensor::download() const {
  std::vector<Ftype> all = _buf.download();
  all.resize(_n);
  return all;
}

::testing::AssertionResult Tensor::guard_intact() const {
  std::vector<Ftype> all = _buf.download();
  for (size_t i = _n; i < all.size(); ++i)
    if (all[i].__x != kPoison.__x)
      return ::testing::AssertionFailure() << "write past the end at element " << i << " of " << _n;
  return ::testing::AssertionSuccess();
}

static std::atomic<int> cuda_comparisons{0};

// Emulated comparisons don't count: a GPU run must compare on a GPU.
void count_cuda_comparison() {
  if (!cuda_emulated()) ++cuda_comparisons;
}

#if ORVA_CUDA_EMULATED
namespace {
// Runs `op` again with blocks and threads in reverse order: a correct kernel gives the same
// bits, a kernel with a race (or an order-dependent reduction) does not.
void check_order_independent(const BackendOp& op, void* handle, const std::vector<Ftype>& first, const char* what) {
  const orva_emu::Order saved = orva_emu::order();
  orva_emu::set_order(saved == orva_emu::Order::Reverse ? orva_emu::Order::Forward : orva_emu::Order::Reverse);
  const std::vector<Ftype> again = op(handle);
  orva_emu::set_order(saved);
  ASSERT_EQ(first.size(), again.size()) << what;
  for (size_t i = 0; i < first.size(); ++i)
    if (first[i].__x != again[i].__x) {
      ADD_FAILURE() << what << ": emulated CUDA result depends on thread order at element " << i << " of "
                    << first.size() << " (" << half2float_cpu(first[i].__x) << " then "
                    << half2float_cpu(again[i].__x) << ")";
      return;
    }
}
}  // namespace
#endif

void check_on_backends(const BackendOp& op, const std::vector<double>& reference, double host_tol, double cuda_tol,
                       const char* what) {
  std::vector<Ftype> host_out;
  for (int gpu : test_backends()) {
    CudaHandle ctx{};
    const ORVA::BackendKind kind = create_handle(&ctx, gpu);
    if (gpu >= 0 && kind != ORVA::BackendKind::CUDA) {
      ADD_FAILURE() << what << ": CUDA device " << gpu << " did not open";
      destroy_handle(&ctx);
      continue;
    }
    std::vector<Ftype> out = op(&ctx);
#if ORVA_CUDA_EMULATED
    if (gpu >= 0) check_order_independent(op, &ctx, out, what);
#endif
    destroy_handle(&ctx);
    if (gpu < 0) {
      EXPECT_TRUE(NearL2(reference, out, host_tol)) << what << " on host vs float64 reference";
      host_out = out;
    } else {
      EXPECT_TRUE(NearL2(host_out, out, cuda_tol)) << what << " on CUDA vs host";
      EXPECT_TRUE(NearEach(host_out, out, cuda_tol)) << what << " on CUDA vs host";
      count_cuda_comparison();
    }
  }
}

BackendOp on_tensors(const std::vector<std::vector<Ftype>>& in, const Output& out, const TensorOp& op) {
  return [=](void* handle) {
    std::vector<std::unique_ptr<Tensor>> held;
    std::vector<Ftype*> ptrs;
    for (const auto& v : in) held.push_back(std::make_unique<Tensor>(handle, v)), ptrs.push_back(*held.back());
    Tensor o = out.init.empty() ? Tensor(handle, out.n) : Tensor(handle, out.init);
    op(handle, ptrs, o);
    EXPECT_TRUE(o.guard_intact());
    return o.download();
  };
}

void compare_backends(const BackendOp& op, double cuda_tol, const char* what) {
  std::vector<double> host_ref;
  {
    CudaHandle ctx{};
    create_handle(&ctx, -1);
    host_ref = to_doubles(op(&ctx));
    destroy_handle(&ctx);
  }
  // The host result is its own reference; NearL2 still fails it on a NaN.
  check_on_backends(op, host_ref, 0.0, cuda_tol, what);
}

namespace {
#if ORVA_CUDA_EMULATED
// Whatever the emulator reports (a refused launch, a barrier reached by part of a block, a
// copy outside device memory, a cuDNN call) fails the test that caused it.
void fail_on_fault(const char* what) { ADD_FAILURE() << "emulated CUDA: " << what; }
[[maybe_unused]] const auto previous_hook = orva_emu::set_fault_hook(fail_on_fault);

// Every cuDNN descriptor made during a run is destroyed by its end (ctest runs one test per
// process, so a leak names its test).
class DescriptorLeakGate : public ::testing::Environment {
 public:
  void SetUp() override { _at_start = orva_emu::cudnn_live_descriptors(); }
  void TearDown() override {
    EXPECT_EQ(orva_emu::cudnn_live_descriptors(), _at_start) << "cuDNN descriptors left alive at the end of the run";
  }

 private:
  long _at_start = 0;
};
const auto* leak_gate = ::testing::AddGlobalTestEnvironment(new DescriptorLeakGate);
#endif

// With ORVA_REQUIRE_CUDA set, a whole-binary run that compared nothing on CUDA fails.
class CudaComparisonGate : public ::testing::Environment {
 public:
  void TearDown() override {
    const ::testing::UnitTest* u = ::testing::UnitTest::GetInstance();
    if (getenv("ORVA_REQUIRE_CUDA") && u->test_to_run_count() > 1 && cuda_comparisons == 0)
      ADD_FAILURE() << "ORVA_REQUIRE_CUDA is set but no result was compared on CUDA";
  }
};
const auto* gate = ::testing::AddGlobalTestEnvironment(new CudaComparisonGate);
}  // namespace

}  // namespace orva_test
