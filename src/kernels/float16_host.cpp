#include <tbb/parallel_for.h>

#include "kernels/float16_kernel.h"
#include "kernels/half_math.h"

namespace cpu {

void float2half(void*, const float* src, _half* dst, size_t n) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, 4096), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t i = r.begin(); i != r.end(); ++i) dst[i] = f2h(src[i]);
  });
}

void half2float(void*, float* dst, const _half* src, size_t n) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, 4096), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t i = r.begin(); i != r.end(); ++i) dst[i] = h2f(src[i]);
  });
}

}  // namespace cpu
