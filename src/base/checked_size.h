// Size arithmetic for counts that come from description and model files: every product is
// taken in 64 bits and checked, so a hostile file can never wrap a size before it is bounded.
#pragma once
#include <cstdint>
#include <initializer_list>

namespace ORVA {

// Bounds on what any description or model file may ask for. Real networks stay far below
// them; they exist so that a damaged or hostile file ends in an error, not in an allocation of
// many gigabytes. docs/FORMAT.md lists them.
constexpr int kMaxInputSide = 1 << 16;
constexpr int64_t kMaxTensorElements = int64_t(1) << 28;   // one tensor, whole batch
constexpr int64_t kMaxNetworkElements = int64_t(1) << 29;  // all outputs and weights together
constexpr int64_t kMaxWorkspaceBytes = int64_t(1) << 30;   // shared scratch, 8-bit inputs
constexpr int kMaxLayers = 4096;
constexpr int kMaxSiamese = 64;

// Product of the factors; 0 when any factor is 0, -1 when a factor is negative or the product
// passes `limit`.
inline int64_t checked_product(std::initializer_list<int64_t> factors, int64_t limit) {
  for (int64_t f : factors) {
    if (f < 0) return -1;
    if (f == 0) return 0;
  }
  int64_t p = 1;
  for (int64_t f : factors)
    if (__builtin_mul_overflow(p, f, &p) || p > limit) return -1;
  return p;
}

}  // namespace ORVA
