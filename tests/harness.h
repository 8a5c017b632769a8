// The backend-comparison harness: fresh random inputs, a float64 reference for the host,
// the host as the reference for CUDA, relative L2 error with a per-operation tolerance.
//
//   Rules: a NaN anywhere fails; infinities must match in place and sign; integer results
//   match exactly; outputs are poisoned before a run (so an unwritten element fails) and
//   guarded past their end (so a write past the end fails).
#pragma once
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "orva/float16.h"

namespace orva_test {

// Tolerances, each with its reason. Relative L2 = sqrt(sum (got-ref)^2 / sum ref^2).
// One rounding to half: relative error up to 2^-11 per element.
constexpr double kHalfRounding = 1e-3;
// A few chained half operations (multiply then add, or one half sum of a short row).
constexpr double kHalfChain = 4e-3;
// Long accumulations in half (per-channel reductions over thousands of elements).
constexpr double kHalfAccumulate = 3e-2;

// A generator seeded from the run's seed and the test's name, so each test draws its own
// fresh stream and a failing run replays with ORVA_TEST_SEED.
std::mt19937& rng();

std::vector<float> random_floats(size_t n, float lo, float hi);
// Random values already representable in half (so the reference sees what the kernel sees);
// never all zeros.
std::vector<Ftype> random_halves(size_t n, float lo, float hi);
std::vector<float> to_floats(const std::vector<Ftype>& h);
std::vector<double> to_doubles(const std::vector<Ftype>& h);
std::vector<Ftype> to_halves(const std::vector<float>& f);
std::vector<Ftype> to_halves(const std::vector<double>& f);

// Each element of a result against the same element of a reference: within 4 x tol of the
// larger of its magnitude and the reference's RMS, so that one wrong element (an unwritten
// tail, a skipped last block) cannot hide in a long tensor's L2 norm.
::testing::AssertionResult NearEach(const std::vector<Ftype>& ref, const std::vector<Ftype>& got, double tol);

// Relative L2 check of a result against a reference.
::testing::AssertionResult NearL2(const std::vector<double>& ref, const std::vector<float>& got, double tol);
::testing::AssertionResult NearL2(const std::vector<double>& ref, const std::vector<Ftype>& got, double tol);
::testing::AssertionResult NearL2(const std::vector<Ftype>& ref, const std::vector<Ftype>& got, double tol);

// Guarded, poisoned tensor: `n` elements followed by guard elements; poison() fills all of
// it with a NaN pattern, guard_intact() checks that nothing wrote past the end.
class Tensor {
 public:
  static constexpr size_t kGuard = 64;
  Tensor(void* handle, size_t n);
  Tensor(void* handle, const std::vector<Ftype>& values);
  Ftype* get() const { return _buf.get(); }
  operator Ftype*() const { return _buf.get(); }
  size_t size() const { return _n; }
  void upload(const std::vector<Ftype>& values);
  void poison();
  std::vector<Ftype> download() const;
  ::testing::AssertionResult guard_intact() const;

 private:
  void* _h;
  size_t _n;
  Buffer<Ftype> _buf;
};

// Counts comparisons made on CUDA; a run with ORVA_REQUIRE_CUDA that compared nothing fails.
void count_cuda_comparison();

// Runs `op` on every backend present with the same inputs and returns its outputs per
// backend (host first). `op` receives a context and must return its outputs as halves.
using BackendOp = std::function<std::vector<Ftype>(void* handle)>;
// Host output against the float64 reference, then CUDA (when present) against the host.
void check_on_backends(const BackendOp& op, const std::vector<double>& reference, double host_tol,
                       double cuda_tol, const char* what);
// The output of one operation on guarded tensors, as check_on_backends wants it: tensors
// holding `in`, an output holding `out` (or, given a count, poisoned), then
// op(handle, inputs, output); a write past the output's end fails the test.
struct Output {
  Output(std::vector<Ftype> values) : init(std::move(values)), n(init.size()) {}
  Output(size_t count) : n(count) {}
  std::vector<Ftype> init;
  size_t n;
};
using TensorOp = std::function<void(void* handle, const std::vector<Ftype*>& in, Ftype* out)>;
BackendOp on_tensors(const std::vector<std::vector<Ftype>>& in, const Output& out, const TensorOp& op);

// CUDA (when present) against the host twin only, for launchers whose float64 references
// live in their layers' tests; the host result must be free of NaN.
void compare_backends(const BackendOp& op, double cuda_tol, const char* what);

// The message of the E that `f` throws, or "(nothing thrown)".
template <typename E = std::exception, typename F>
std::string thrown(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

// The count a short read or write throws, or -1.
template <typename F>
long thrown_count(F&& f) {
  try {
    f();
  } catch (size_t n) {
    return (long)n;
  }
  return -1;
}

// Whether `text` holds `part`, showing both when it does not.
inline ::testing::AssertionResult Contains(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "'" << part << "' not in:\n" << text;
}

}  // namespace orva_test
