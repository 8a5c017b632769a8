#include <tbb/parallel_for.h>

#include "kernels/float16_kernel.h"
#include "kernels/half_lanes.h"
#include "kernels/half_math.h"

namespace cpu {

// Eight at a time through the lanes (the same rounding as f2h, to nearest even), the rest one
// by one.
void float2half(void*, const float* src, _half* dst, size_t n) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, 4096), [&](const tbb::blocked_range<size_t>& r) {
    size_t i = r.begin();
    for (; i + 8 <= r.end(); i += 8) store8(dst + i, loadf8(src + i));
    for (; i != r.end(); ++i) dst[i] = f2h(src[i]);
  });
}

void half2float(void*, float* dst, const _half* src, size_t n) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, 4096), [&](const tbb::blocked_range<size_t>& r) {
    size_t i = r.begin();
    for (; i + 8 <= r.end(); i += 8) storef8(dst + i, load8(src + i));
    for (; i != r.end(); ++i) dst[i] = h2f(src[i]);
  });
}

}  // namespace cpu
