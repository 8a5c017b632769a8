// Host twins of the layout and broadcast operations. Gradients are summed in float in the
// device thread's order and added to the previous delta with one rounding.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "kernels/half_math.h"
#include "kernels/tensor_kernel.h"

#if defined(__F16C__) || defined(__SSE2__)
#include <immintrin.h>
#endif

namespace cpu {
namespace tensor {
namespace {

template <typename Body>
void for_range(size_t n, size_t grain, Body body) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, std::max<size_t>(grain, 1)),
                    [&](const tbb::blocked_range<size_t>& r) {
                      for (size_t i = r.begin(); i != r.end(); ++i) body(i);
                    });
}

inline _half add_grad(_half prev, float g) { return f2h(h2f(prev) + g); }

}  // namespace

void upsample(void* handle, int batch, int w, int h, int c, int stride, const Ftype* input, Ftype* output) {
  const int ow = w * stride;
  // Tasks of whole input rows: each output row is built once and stored stride times.
  // Input row `row` lands at output row row * stride: plane k's rows k * h + y go to
  // k * oh + y * stride = (k * h + y) * stride, so no division is needed.
  for_range((size_t)batch * c * h, std::max(1, 16384 / std::max(ow * stride, 1)), [&](size_t row) {
    const Ftype* src = input + row * w;
    Ftype* dst = output + row * stride * ow;
    int x = 0;
#if defined(__SSE2__)
    if (stride == 2) {
      auto pair = [&](int at) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at));
        const __m128i lo = _mm_unpacklo_epi16(v, v), hi = _mm_unpackhi_epi16(v, v);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 2 * at), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 2 * at + 8), hi);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + ow + 2 * at), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + ow + 2 * at + 8), hi);
      };
      for (; x + 8 <= w; x += 8) pair(x);
      if (x < w && w >= 8) {  // the last eight again rather than a scalar tail
        pair(w - 8);
        x = w;
      }
      for (; x < w; ++x) dst[2 * x] = dst[2 * x + 1] = dst[ow + 2 * x] = dst[ow + 2 * x + 1] = src[x];
      return;
    }
#endif
    for (; x < w; ++x)
      for (int s = 0; s < stride; ++s) dst[x * stride + s] = src[x];
    for (int s = 1; s < stride; ++s) memcpy(dst + (size_t)s * ow, dst, ow * sizeof(Ftype));
  });
}

void upsample_backward(void* handle, int batch, int w, int h, int c, int stride, const Ftype* delta,
                       Ftype* prev_delta) {
  const int ow = w * stride, oh = h * stride;
  for_range((size_t)batch * c * h, 16, [&](size_t row) {
    const size_t k = row / h, y = row % h;
    const Ftype* src = delta + (k * oh + y * stride) * ow;
    for (int x = 0; x < w; ++x) {
      float sum = 0.f;
      for (int dy = 0; dy < stride; ++dy)
        for (int dx = 0; dx < stride; ++dx) sum += h2f(src[(size_t)dy * ow + (size_t)x * stride + dx]);
      prev_delta[row * w + x] = add_grad(prev_delta[row * w + x], sum);
    }
  });
}

namespace {

// The two taps of output index d along one axis and the weight of the second.
struct Taps {
  int lo, hi;
  float t;
};
inline Taps taps(int d, float step, int half_pixel, int in) {
  const float src = half_pixel ? ((float)d + 0.5f) * step - 0.5f : (float)d * step;
  const float f = floorf(src);
  return Taps{std::max((int)f, 0), std::min((int)ceilf(src), in - 1), src - f};
}
// Weight of input index i in output d's interpolation along one axis.
inline float tap_weight(const Taps& k, int i) { return (k.lo == i ? 1.f - k.t : 0.f) + (k.hi == i ? k.t : 0.f); }
// The outputs whose taps can reach input index i (wider than needed; the weights decide).
inline void reach(int i, int in, int out, float step, int half_pixel, int* first, int* last) {
  *first = 0;
  *last = out - 1;
  if (!(step > 0.f)) return;
  const float off = half_pixel ? 0.5f * step - 0.5f : 0.f;
  if (i > 0) *first = std::max(0, (int)floorf(((float)i - 1.f - off) / step) - 1);
  if (i < in - 1) *last = std::min(out - 1, (int)ceilf(((float)i + 1.f - off) / step) + 1);
}

}  // namespace

void resize(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, float sx, float sy,
            int half_pixel, const Ftype* input, Ftype* output) {
  std::vector<Taps> cols(out_w);
  for (int x = 0; x < out_w; ++x) cols[x] = taps(x, sx, half_pixel, in_w);
  for_range((size_t)batch * c * out_h, std::max(1, 4096 / out_w), [&](size_t row) {
    const size_t k = row / out_h;
    const Taps ty = taps((int)(row % out_h), sy, half_pixel, in_h);
    const Ftype* top = input + (k * in_h + ty.lo) * in_w;
    const Ftype* bottom = input + (k * in_h + ty.hi) * in_w;
    Ftype* dst = output + row * out_w;
    for (int x = 0; x < out_w; ++x) {
      const Taps& tx = cols[x];
      const float a = h2f(top[tx.lo]), b = h2f(top[tx.hi]), cc = h2f(bottom[tx.lo]), d = h2f(bottom[tx.hi]);
      const float t = a + (b - a) * tx.t, u = cc + (d - cc) * tx.t;
      dst[x] = f2h(t + (u - t) * ty.t);
    }
  });
}

void resize_backward(void* handle, int batch, int c, int in_w, int in_h, int out_w, int out_h, float sx, float sy,
                     int half_pixel, const Ftype* delta, Ftype* prev_delta) {
  for_range((size_t)batch * c * in_h, 1, [&](size_t row) {
    const size_t k = row / in_h;
    const int y = (int)(row % in_h);
    int y0, y1;
    reach(y, in_h, out_h, sy, half_pixel, &y0, &y1);
    for (int x = 0; x < in_w; ++x) {
      int x0, x1;
      reach(x, in_w, out_w, sx, half_pixel, &x0, &x1);
      float sum = 0.f;
      for (int oy = y0; oy <= y1; ++oy) {
        const float wy = tap_weight(taps(oy, sy, half_pixel, in_h), y);
        if (wy == 0.f) continue;
        for (int ox = x0; ox <= x1; ++ox) {
          const float wx = tap_weight(taps(ox, sx, half_pixel, in_w), x);
          if (wx == 0.f) continue;
          sum += h2f(delta[(k * out_h + oy) * out_w + ox]) * (wy * wx);
        }
      }
      prev_delta[row * in_w + x] = add_grad(prev_delta[row * in_w + x], sum);
    }
  });
}

void add_scaled(void* handle, int n, Ftype alpha, const Ftype* x, Ftype beta, const Ftype* y, Ftype* out) {
  const float a = h2f(alpha), b = h2f(beta);
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)n, 16384), [&](const tbb::blocked_range<size_t>& r) {
    size_t i = r.begin();
#if defined(__F16C__)
    // Eight at a time, rounding after each product and after the sum as the scalar loop does.
    const __m256 a8 = _mm256_set1_ps(a), b8 = _mm256_set1_ps(b);
    auto round8 = [](__m256 v) { return _mm256_cvtph_ps(_mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT)); };
    if (a == 1.f && b == 1.f)  // the residual sum: a product by one is exact, NaN passing through either way
      for (; i + 8 <= r.end(); i += 8) {
        const __m256 xv = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x + i)));
        const __m256 yv = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                         _mm256_cvtps_ph(_mm256_add_ps(xv, yv), _MM_FROUND_TO_NEAREST_INT));
      }
    for (; i + 8 <= r.end(); i += 8) {
      const __m256 xv = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x + i)));
      const __m256 yv = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i)));
      const __m256 sum = _mm256_add_ps(round8(_mm256_mul_ps(a8, xv)), round8(_mm256_mul_ps(b8, yv)));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm256_cvtps_ph(sum, _MM_FROUND_TO_NEAREST_INT));
    }
#endif
    for (; i < r.end(); ++i) out[i] = hadd(hmul(alpha, x[i]), hmul(beta, y[i]));
  });
}

void scale(void* handle, int batch, int c, int size, int per_position, const Ftype* input, const Ftype* s,
           Ftype* output) {
  for_range((size_t)batch * c, std::max(1, 8192 / size), [&](size_t k) {
    const size_t b = k / c, base = k * size;
    if (!per_position) {
      const _half f = s[k];
      for (int p = 0; p < size; ++p) output[base + p] = hmul(input[base + p], f);
    } else {
      const Ftype* map = s + b * size;
      for (int p = 0; p < size; ++p) output[base + p] = hmul(input[base + p], map[p]);
    }
  });
}

void scale_backward(void* handle, int batch, int c, int size, int per_position, const Ftype* input, const Ftype* s,
                    const Ftype* delta, Ftype* prev_delta, Ftype* scale_delta) {
  if (prev_delta)
    for_range((size_t)batch * c * size, 8192, [&](size_t i) {
      const size_t k = i / size, p = i % size;
      const _half f = per_position ? s[k / c * size + p] : s[k];
      prev_delta[i] = add_grad(prev_delta[i], h2f(delta[i]) * h2f(f));
    });
  if (!scale_delta) return;
  if (!per_position) {
    for_range((size_t)batch * c, 16, [&](size_t k) {
      float sum = 0.f;
      for (int p = 0; p < size; ++p) sum += h2f(delta[k * size + p]) * h2f(input[k * size + p]);
      scale_delta[k] = add_grad(scale_delta[k], sum);
    });
  } else {
    for_range((size_t)batch * size, 256, [&](size_t q) {
      const size_t b = q / size, p = q % size;
      float sum = 0.f;
      for (int ch = 0; ch < c; ++ch) {
        const size_t i = (b * c + ch) * size + p;
        sum += h2f(delta[i]) * h2f(input[i]);
      }
      scale_delta[q] = add_grad(scale_delta[q], sum);
    });
  }
}

void dropout(void* handle, int n, const Ftype* input, const float* rand, float prob, float scale, Ftype* output) {
  for_range(n, 8192, [&](size_t i) { output[i] = rand[i] < prob ? fp_0 : f2h(h2f(input[i]) * scale); });
}

void dropout_backward(void* handle, int n, const Ftype* delta, const float* rand, float prob, float scale,
                      Ftype* prev_delta) {
  for_range(n, 8192, [&](size_t i) {
    if (rand[i] >= prob) prev_delta[i] = add_grad(prev_delta[i], h2f(delta[i]) * scale);
  });
}

void prelu(void* handle, int batch, int c, int size, const Ftype* input, const Ftype* slope, Ftype* output) {
  for_range((size_t)batch * c * size, 8192, [&](size_t i) {
    const _half x = input[i];
    output[i] = h2f(x) > 0.f ? x : hmul(x, slope[i / size % c]);
  });
}

void prelu_backward(void* handle, int batch, int c, int size, const Ftype* input, const Ftype* slope,
                    const Ftype* delta, Ftype* prev_delta, Ftype* slope_delta) {
  if (prev_delta)
    for_range((size_t)batch * c * size, 8192, [&](size_t i) {
      const float d = h2f(delta[i]);
      prev_delta[i] = add_grad(prev_delta[i], h2f(input[i]) > 0.f ? d : d * h2f(slope[i / size % c]));
    });
  if (!slope_delta) return;
  for_range(c, 1, [&](size_t ch) {
    float sum = 0.f;
    for (int b = 0; b < batch; ++b)
      for (int p = 0; p < size; ++p) {
        const size_t i = ((size_t)b * c + ch) * size + p;
        const float x = h2f(input[i]);
        if (x <= 0.f) sum += h2f(delta[i]) * x;
      }
    slope_delta[ch] = add_grad(slope_delta[ch], sum);
  });
}

}  // namespace tensor
}  // namespace cpu
