// Host twins of the pooling operations. Half comparisons and conversions are exact in float,
// so the maximum is taken on floats; every half sum is rounded after each term in the
// device's order, and each gradient is summed in float and added to the previous delta with
// one rounding, as the device does.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "kernels/half_math.h"
#include "kernels/pool_kernel.h"

#if defined(__F16C__)
#include <immintrin.h>
#endif

namespace cpu {
namespace pool {
namespace {

constexpr _half kMinusInf = {0xFC00};

// Rows of output (or input) planes in parallel: body(row, k) where k is batch * channel.
template <typename Body>
void for_each_row(int planes, int rows, Body body) {
  const size_t n = (size_t)planes * rows;
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, std::max<size_t>(1, 4096 / std::max(rows, 1))),
                    [&](const tbb::blocked_range<size_t>& r) {
                      for (size_t i = r.begin(); i != r.end(); ++i) body((int)(i % rows), (int)(i / rows));
                    });
}

// Outputs [first, last] along one axis whose windows cover input position x.
inline void covering(int x, int pad, int size, int stride, int out, int& first, int& last) {
  const int lo = x + pad - size + 1;
  first = lo <= 0 ? 0 : (lo + stride - 1) / stride;
  last = std::min((x + pad) / stride, out - 1);
}

// One window's mean: in-range values summed in half in row-major order, divided by the area.
inline _half avg_window(const Ftype* input, size_t plane, int in_h, int in_w, int y0, int ny0, int ny1, int x0,
                        int size, float area) {
  const int nx0 = std::max(0, -x0), nx1 = std::min(size, in_w - x0);
  _half sum = fp_0;
  for (int n = ny0; n < ny1; ++n)
    for (int m = nx0; m < nx1; ++m) sum = hadd(sum, input[plane + (size_t)(y0 + n) * in_w + x0 + m]);
  return f2h(h2f(sum) / area);
}

// Separable maximum for inference (no indexes): a window's row-major walk keeping the first
// strictly greater value equals, bit for bit, the walk over its rows' own maxima taken in row
// order, because each row's winner is the first of its row's maximal values and a later row
// replaces it only when strictly greater. So each input row is widened to float once, its
// horizontal window maxima are kept for the `size` output rows that read it, and a column of
// them is folded per output. Columns and rows outside the input are -inf, which never wins.
constexpr int kTile = 256;       // output columns per pass: the scratch stays on the stack
constexpr int kSepMaxSize = 8;   // larger windows take the indexed walk
constexpr int kSepMaxStride = 4;
constexpr int kPhase = kTile + 8 + kSepMaxSize;  // floats per phase of a widened row

// The vector max returns its second operand unless the first is strictly greater, so
// max(v, best) is the walk's step "v > best ? v : best" and NaN never enters.

// h[t] = maximum over the window starting at widened position t of one row, t < lanes.
// at[m]: where column m of window 0 lies among the phases.
inline void row_maxima(const float* ph, const int* at, int size, int lanes, float* h) {
  const float minus_inf = -std::numeric_limits<float>::infinity();
#if defined(__F16C__)
  for (int t = 0; t < lanes; t += 8) {
    __m256 best = _mm256_set1_ps(minus_inf);
    for (int m = 0; m < size; ++m)
      best = _mm256_max_ps(_mm256_loadu_ps(ph + at[m] + t), best);
    _mm256_storeu_ps(h + t, best);
  }
#else
  for (int t = 0; t < lanes; ++t) {
    float best = minus_inf;
    for (int m = 0; m < size; ++m) {
      const float v = ph[at[m] + t];
      best = v > best ? v : best;
    }
    h[t] = best;
  }
#endif
}

// out[t] = maximum over the rows' maxima in row order, t < tw.
inline void column_maxima(const float* const* rows, int nrows, int tw, Ftype* out) {
  const float minus_inf = -std::numeric_limits<float>::infinity();
  int t = 0;
#if defined(__F16C__)
  auto block = [&](int at) {
    __m256 best = _mm256_set1_ps(minus_inf);
    for (int n = 0; n < nrows; ++n) best = _mm256_max_ps(_mm256_loadu_ps(rows[n] + at), best);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), _mm256_cvtps_ph(best, _MM_FROUND_TO_NEAREST_INT));
  };
  for (; t + 8 <= tw; t += 8) block(t);
  if (t < tw && tw >= 8) block(tw - 8), t = tw;  // the last eight again rather than a scalar tail
#endif
  for (; t < tw; ++t) {
    float best = minus_inf;
    for (int n = 0; n < nrows; ++n) best = rows[n][t] > best ? rows[n][t] : best;
    out[t] = f2h(best);
  }
}

// Phase r, position u of ph holds input column xa + u * stride + r, -inf outside the row;
// positions below lo have a column before the row's start.
void widen_phases(const Ftype* row, int in_w, int xa, int stride, int count, int lo, float* ph) {
  const float minus_inf = -std::numeric_limits<float>::infinity();
  auto scalar = [&](int u) {
    for (int r = 0; r < stride; ++r) {
      const int x = xa + u * stride + r;
      ph[r * kPhase + u] = x >= 0 && x < in_w ? h2f(row[x]) : minus_inf;
    }
  };
  int u = 0;
  for (; u < lo; ++u) scalar(u);
#if defined(__F16C__)
  if (stride == 1) {
    const int hi = std::min(count, in_w - xa);  // positions inside the row
    for (; u + 8 <= hi; u += 8)
      _mm256_storeu_ps(ph + u, _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + xa + u))));
    if (u < hi && hi - 8 >= lo) {  // the last eight again rather than a scalar tail
      _mm256_storeu_ps(ph + hi - 8,
                       _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + xa + hi - 8))));
      u = hi;
    }
  } else if (stride == 2) {
    // Sixteen columns split into their even and odd halves before widening.
    const __m128i split = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
    for (; u + 8 <= count && xa + 2 * u + 16 <= in_w; u += 8) {
      const Ftype* p = row + xa + 2 * u;
      const __m128i a = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), split);
      const __m128i b = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), split);
      _mm256_storeu_ps(ph + u, _mm256_cvtph_ps(_mm_unpacklo_epi64(a, b)));
      _mm256_storeu_ps(ph + kPhase + u, _mm256_cvtph_ps(_mm_unpackhi_epi64(a, b)));
    }
  }
#endif
  for (; u < count; ++u) scalar(u);
}

// Stride 1 on a small plane: the plane is widened once into a float copy with -inf borders
// (pad before, the window's reach after, on both axes), so that every window lies inside the
// copy and the row maxima run over the copy as one flat array, without per-row work beyond
// the widening and the final narrowing.
constexpr int kFlatMax = 4096;  // floats of the bordered copy of one plane

bool fits_flat(int in_h, int in_w, int size, int pad) {
  return (long long)(in_h + 2 * pad + size - 1) * (in_w + 2 * pad + size - 1) <= kFlatMax;
}

void max_values_flat(int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int pad,
                     const Ftype* input, Ftype* output) {
  const float minus_inf = -std::numeric_limits<float>::infinity();
  const int wp = in_w + 2 * pad + size - 1, hp = in_h + 2 * pad + size - 1, n = wp * hp;
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * in_c, std::max(1, 16384 / n)), [&](const tbb::blocked_range<int>& r) {
    alignas(32) float p[kFlatMax + 8 + kSepMaxSize];
    alignas(32) float h[kFlatMax + 8];
    std::fill(p, p + n + 8 + kSepMaxSize, minus_inf);  // the borders stay -inf from here on
    for (int k = r.begin(); k != r.end(); ++k) {
      const Ftype* plane = input + (size_t)k * in_h * in_w;
      for (int y = 0; y < in_h; ++y) {
        const Ftype* src = plane + (size_t)y * in_w;
        float* dst = p + (size_t)(y + pad) * wp + pad;
        int x = 0;
#if defined(__F16C__)
        auto eight = [&](int at) {
          _mm256_storeu_ps(dst + at, _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at))));
        };
        for (; x + 8 <= in_w; x += 8) eight(x);
        if (x < in_w && in_w >= 8) eight(in_w - 8), x = in_w;  // the last eight again
#endif
        for (; x < in_w; ++x) dst[x] = h2f(src[x]);
      }
      // h[q] = maximum of the window row starting at q (values past a row's end are that
      // row's -inf border or the next row's, and only windows inside a row are read below).
      int q = 0;
#if defined(__F16C__)
      for (; q < n; q += 8) {
        __m256 best = _mm256_max_ps(_mm256_loadu_ps(p + q), _mm256_set1_ps(minus_inf));
        for (int m = 1; m < size; ++m) best = _mm256_max_ps(_mm256_loadu_ps(p + q + m), best);
        _mm256_storeu_ps(h + q, best);
      }
#else
      for (; q < n; ++q) {
        float best = p[q] > minus_inf ? p[q] : minus_inf;
        for (int m = 1; m < size; ++m) best = p[q + m] > best ? p[q + m] : best;
        h[q] = best;
      }
#endif
      for (int i = 0; i < out_h; ++i) {
        Ftype* out = output + ((size_t)k * out_h + i) * out_w;
        const float* top = h + (size_t)i * wp;
        int j = 0;
#if defined(__F16C__)
        auto block = [&](int at) {
          __m256 best = _mm256_loadu_ps(top + at);
          for (int m = 1; m < size; ++m) best = _mm256_max_ps(_mm256_loadu_ps(top + (size_t)m * wp + at), best);
          _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), _mm256_cvtps_ph(best, _MM_FROUND_TO_NEAREST_INT));
        };
        for (; j + 8 <= out_w; j += 8) block(j);
        if (j < out_w && out_w >= 8) block(out_w - 8), j = out_w;  // the last eight again
#endif
        for (; j < out_w; ++j) {
          float best = top[j];
          for (int m = 1; m < size; ++m) best = top[(size_t)m * wp + j] > best ? top[(size_t)m * wp + j] : best;
          out[j] = f2h(best);
        }
      }
    }
  });
}

void max_values(int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride, int pad,
                const Ftype* input, Ftype* output) {
  const int planes = batch * in_c;
  // Bands of output rows big enough that re-widening the size - 1 rows they share is cheap.
  const int band = std::max(1, std::min(out_h, 16384 / std::max(out_w, 1)));
  const int bands = (out_h + band - 1) / band;
  tbb::parallel_for(tbb::blocked_range<size_t>(0, (size_t)planes * bands), [&](const tbb::blocked_range<size_t>& r) {
    alignas(32) float ph[kSepMaxStride * kPhase];
    alignas(32) float ring[kSepMaxSize][kTile + 8];
    int at[kSepMaxSize];
    for (int m = 0; m < size; ++m) at[m] = (m % stride) * kPhase + m / stride;
    for (size_t task = r.begin(); task != r.end(); ++task) {
      const size_t k = task / bands;
      const int i0 = (int)(task % bands) * band, i1 = std::min(out_h, i0 + band);
      const Ftype* plane = input + k * in_h * in_w;
      for (int j0 = 0; j0 < out_w; j0 += kTile) {
        const int tw = std::min(kTile, out_w - j0);
        const int lanes = (tw + 7) / 8 * 8;  // lanes past tw are computed and dropped
        const int xa = j0 * stride - pad;
        const int count = lanes + (size - 1) / stride;  // positions per phase
        const int lo = std::min(count, xa >= 0 ? 0 : (-xa + stride - 1) / stride);
        int held[kSepMaxSize];
        std::fill(held, held + size, -1);
        int first = ((i0 * stride - pad) % size + size) % size;  // ring slot of the window's first row
        for (int i = i0; i < i1; ++i) {
          const float* rows[kSepMaxSize];
          int nrows = 0;
          for (int n = 0, slot = first; n < size; ++n, slot = slot + 1 == size ? 0 : slot + 1) {
            const int y = i * stride - pad + n;
            if (y < 0 || y >= in_h) continue;  // rows outside are -inf, which never wins
            if (held[slot] != y) {
              widen_phases(plane + (size_t)y * in_w, in_w, xa, stride, count, lo, ph);
              row_maxima(ph, at, size, lanes, ring[slot]);
              held[slot] = y;
            }
            rows[nrows++] = ring[slot];
          }
          column_maxima(rows, nrows, tw, output + (k * out_h + i) * out_w + j0);
          for (first += stride; first >= size;) first -= size;
        }
      }
    }
  });
}

#if defined(__x86_64__) && defined(__F16C__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC's headers, inlined here
// The first of a window row's maxima, as the walk takes it, for sixteen windows at p.
__attribute__((target("avx512f"))) inline __m512 max_pairs16(const Ftype* p) {
  const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
  const __m512i odd = _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
  const __m512 minus = _mm512_set1_ps(-std::numeric_limits<float>::infinity());
  const __m512 lo = _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
  const __m512 hi = _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 16)));
  return _mm512_max_ps(_mm512_permutex2var_ps(lo, odd, hi), _mm512_max_ps(_mm512_permutex2var_ps(lo, even, hi), minus));
}

// One output row of the 2 x 2 / 2 pool on AVX-512 hosts (out_w >= 16): sixteen windows from two
// 32-half loads per row, the same maxima in the same order as the eight-wide loop below.
__attribute__((target("avx512f"))) void max_2x2_row16(const Ftype* r0, const Ftype* r1, Ftype* out, int out_w) {
  for (int j = 0; j < out_w; j += 16) {
    const int at = std::min(j, out_w - 16);  // the last sixteen again rather than a tail
    const __m512 best = _mm512_max_ps(max_pairs16(r1 + 2 * at), max_pairs16(r0 + 2 * at));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + at), _mm512_cvtps_ph(best, _MM_FROUND_TO_NEAREST_INT));
  }
}
#pragma GCC diagnostic pop
bool pool_rows16() { return __builtin_cpu_supports("avx512f"); }
#else
void max_2x2_row16(const Ftype*, const Ftype*, Ftype*, int) {}
bool pool_rows16() { return false; }
#endif

}  // namespace

void max_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                 int pad, const Ftype* input, Ftype* output, int* indexes) {
#if defined(__F16C__)
  if (!indexes && size == 2 && stride == 2 && pad == 0 && out_w >= 8) {
    // The common 2 x 2 / 2: every window inside the input, eight at a time straight from the
    // two rows, each row's columns split into evens and odds before widening.
    const __m128i split = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
    const __m256 minus = _mm256_set1_ps(-std::numeric_limits<float>::infinity());
    const bool rows16 = out_w >= 16 && pool_rows16();
    for_each_row(batch * in_c, out_h, [&](int i, int k) {
      const Ftype* r0 = input + ((size_t)k * in_h + 2 * i) * in_w;
      Ftype* out = output + ((size_t)k * out_h + i) * out_w;
      if (rows16) return max_2x2_row16(r0, r0 + in_w, out, out_w);
      auto row = [&](const Ftype* p) {  // the first of the window row's maxima, as the walk takes it
        const __m128i a = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), split);
        const __m128i b = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), split);
        return _mm256_max_ps(_mm256_cvtph_ps(_mm_unpackhi_epi64(a, b)),
                             _mm256_max_ps(_mm256_cvtph_ps(_mm_unpacklo_epi64(a, b)), minus));
      };
      auto block = [&](int j) {
        const __m256 best = _mm256_max_ps(row(r0 + in_w + 2 * j), row(r0 + 2 * j));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + j), _mm256_cvtps_ph(best, _MM_FROUND_TO_NEAREST_INT));
      };
      int j = 0;
      for (; j + 8 <= out_w; j += 8) block(j);
      if (j < out_w) block(out_w - 8);  // the last eight again rather than a scalar tail
    });
    return;
  }
#endif
  if (!indexes && stride == 1 && size <= kSepMaxSize && fits_flat(in_h, in_w, size, pad)) {
    max_values_flat(batch, in_h, in_w, in_c, out_h, out_w, size, pad, input, output);
    return;
  }
  if (!indexes && size <= kSepMaxSize && stride <= kSepMaxStride) {
    max_values(batch, in_h, in_w, in_c, out_h, out_w, size, stride, pad, input, output);
    return;
  }
  const float minus_inf = -std::numeric_limits<float>::infinity();
  for_each_row(batch * in_c, out_h, [&](int i, int k) {
    const size_t plane = (size_t)k * in_h * in_w;
    const size_t o = ((size_t)k * out_h + i) * out_w;
    const int y0 = i * stride - pad;
    const int ny0 = std::max(0, -y0), ny1 = std::min(size, in_h - y0);
    if (size == 2 && stride == 2 && pad == 0 && ny1 == 2 && 2 * out_w <= in_w) {
      // The common 2 x 2 / 2 window wholly inside the input: two rows, no bounds to test.
      const Ftype* r0 = input + plane + (size_t)y0 * in_w;
      const Ftype* r1 = r0 + in_w;
      const int base = (int)(plane + (size_t)y0 * in_w);
      int j = 0;
#if defined(__F16C__)
      // Four windows at a time: the same strict comparisons in the same order, so NaN is never
      // chosen and the first maximum wins.
      const __m128 minus = _mm_set1_ps(minus_inf);
      for (; j + 4 <= out_w && 2 * j + 8 <= in_w; j += 4) {
        const __m256 t0 = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r0 + 2 * j)));
        const __m256 t1 = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r1 + 2 * j)));
        const __m128 t0l = _mm256_castps256_ps128(t0), t0h = _mm256_extractf128_ps(t0, 1);
        const __m128 t1l = _mm256_castps256_ps128(t1), t1h = _mm256_extractf128_ps(t1, 1);
        const __m128 cand[4] = {_mm_shuffle_ps(t0l, t0h, _MM_SHUFFLE(2, 0, 2, 0)),
                                _mm_shuffle_ps(t0l, t0h, _MM_SHUFFLE(3, 1, 3, 1)),
                                _mm_shuffle_ps(t1l, t1h, _MM_SHUFFLE(2, 0, 2, 0)),
                                _mm_shuffle_ps(t1l, t1h, _MM_SHUFFLE(3, 1, 3, 1))};
        const int first = base + 2 * j;
        const __m128i col = _mm_setr_epi32(first, first + 2, first + 4, first + 6);
        const __m128i off[4] = {col, _mm_add_epi32(col, _mm_set1_epi32(1)), _mm_add_epi32(col, _mm_set1_epi32(in_w)),
                                _mm_add_epi32(col, _mm_set1_epi32(in_w + 1))};
        __m128 best = minus;
        __m128 at = _mm_castsi128_ps(_mm_set1_epi32(-1));
        for (int q = 0; q < 4; ++q) {
          const __m128 gt = _mm_cmp_ps(cand[q], best, _CMP_GT_OQ);
          best = _mm_blendv_ps(best, cand[q], gt);
          at = _mm_blendv_ps(at, _mm_castsi128_ps(off[q]), gt);
        }
        _mm_storel_epi64(reinterpret_cast<__m128i*>(output + o + j), _mm_cvtps_ph(best, _MM_FROUND_TO_NEAREST_INT));
        if (indexes) _mm_storeu_si128(reinterpret_cast<__m128i*>(indexes + o + j), _mm_castps_si128(at));
      }
#endif
      for (; j < out_w; ++j) {
        const Ftype v[4] = {r0[2 * j], r0[2 * j + 1], r1[2 * j], r1[2 * j + 1]};
        const int off[4] = {2 * j, 2 * j + 1, in_w + 2 * j, in_w + 2 * j + 1};
        float best = minus_inf;
        int at = -1;
        for (int q = 0; q < 4; ++q)
          if (h2f(v[q]) > best) best = h2f(v[q]), at = q;
        output[o + j] = at < 0 ? kMinusInf : v[at];
        if (indexes) indexes[o + j] = at < 0 ? -1 : base + off[at];
      }
      return;
    }
    auto one = [&](int j) {
      const int x0 = j * stride - pad;
      const int nx0 = std::max(0, -x0), nx1 = std::min(size, in_w - x0);
      float best = minus_inf;
      int at = -1;
      for (int n = ny0; n < ny1; ++n) {
        const size_t row = plane + (size_t)(y0 + n) * in_w;
        for (int m = nx0; m < nx1; ++m) {
          const float v = h2f(input[row + x0 + m]);
          // Branch-free: the comparison is as unpredictable as the data.
          const bool greater = v > best;
          at = greater ? (int)(row + x0 + m) : at;
          best = greater ? v : best;
        }
      }
      output[o + j] = at < 0 ? kMinusInf : input[at];
      if (indexes) indexes[o + j] = at;
    };
    int j = 0;
#if defined(__F16C__)
    if (stride == 1) {
      // Eight neighbouring windows at once where their columns lie inside the input: the
      // winner's offset n * in_w + m from the window's corner is tracked in float lanes (exact
      // below 2^24, far above any window).
      for (; j < std::min(pad, out_w); ++j) one(j);
      const int last = in_w - size + pad - 8;  // the first window of the last whole block of eight
      for (; j <= last && j + 8 <= out_w; j += 8) {
        const int x0 = j - pad;
        __m256 best = _mm256_set1_ps(minus_inf), at = _mm256_set1_ps(-1.f);
        for (int n = ny0; n < ny1; ++n) {
          const Ftype* row = input + plane + (size_t)(y0 + n) * in_w + x0;
          for (int m = 0; m < size; ++m) {
            const __m256 v = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + m)));
            // Plain masks rather than blendv, which the compiler splits without AVX2.
            const __m256 gt = _mm256_cmp_ps(v, best, _CMP_GT_OQ);
            best = _mm256_max_ps(v, best);  // v > best ? v : best, NaN never taken
            at = _mm256_or_ps(_mm256_and_ps(gt, _mm256_set1_ps((float)(n * in_w + m))), _mm256_andnot_ps(gt, at));
          }
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(output + o + j), _mm256_cvtps_ph(best, _MM_FROUND_TO_NEAREST_INT));
        alignas(32) float q[8];
        _mm256_store_ps(q, at);
        const int corner = (int)(plane + (size_t)y0 * in_w + x0);
        for (int k = 0; k < 8 && indexes; ++k) indexes[o + j + k] = q[k] < 0.f ? -1 : corner + k + (int)q[k];
      }
    }
#endif
    for (; j < out_w; ++j) one(j);
  });
}

void max_backward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                  int pad, const Ftype* delta, const int* indexes, Ftype* prev_delta) {
  for_each_row(batch * in_c, in_h, [&](int y, int k) {
    int i0, i1;
    covering(y, pad, size, stride, out_h, i0, i1);
    for (int x = 0; x < in_w; ++x) {
      int j0, j1;
      covering(x, pad, size, stride, out_w, j0, j1);
      const int at = (int)(((size_t)k * in_h + y) * in_w + x);
      float sum = 0.f;
      for (int i = i0; i <= i1; ++i)
        for (int j = j0; j <= j1; ++j) {
          const size_t o = ((size_t)k * out_h + i) * out_w + j;
          if (indexes[o] == at) sum += h2f(delta[o]);
        }
      if (i0 <= i1 && j0 <= j1) prev_delta[at] = f2h(h2f(prev_delta[at]) + sum);
    }
  });
}

void avg_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                 int pad, const Ftype* input, Ftype* output) {
  const float area = (float)size * size;
  for_each_row(batch * in_c, out_h, [&](int i, int k) {
    const size_t plane = (size_t)k * in_h * in_w;
    const int y0 = i * stride - pad;
    const int ny0 = std::max(0, -y0), ny1 = std::min(size, in_h - y0);
    Ftype* out = output + ((size_t)k * out_h + i) * out_w;
    int j = 0;
#if defined(__F16C__)
    if (size == 2 && stride == 2 && pad == 0 && ny1 == 2) {
      // 2 x 2 / 2 wholly inside: eight windows at a time, the columns split into evens and odds
      // as halves, the four terms added in window order after the device's +0 start (so a
      // window of -0 gives +0), and the quarter taken by an exact product.
      const Ftype* r0 = input + plane + (size_t)y0 * in_w;
      const Ftype* r1 = r0 + in_w;
      const __m128i split = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
      auto round8 = [](__m256 v) { return _mm256_cvtph_ps(_mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT)); };
      auto halves = [&](const Ftype* p, __m256& even, __m256& odd) {
        const __m128i a = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), split);
        const __m128i b = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), split);
        even = _mm256_cvtph_ps(_mm_unpacklo_epi64(a, b));
        odd = _mm256_cvtph_ps(_mm_unpackhi_epi64(a, b));
      };
      for (; j + 8 <= out_w && 2 * j + 16 <= in_w; j += 8) {
        __m256 e0, o0, e1, o1;
        halves(r0 + 2 * j, e0, o0);
        halves(r1 + 2 * j, e1, o1);
        __m256 sum = _mm256_add_ps(_mm256_setzero_ps(), e0);
        sum = round8(_mm256_add_ps(sum, o0));
        sum = round8(_mm256_add_ps(sum, e1));
        sum = _mm256_add_ps(sum, o1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + j),
                         _mm256_cvtps_ph(_mm256_mul_ps(round8(sum), _mm256_set1_ps(0.25f)), _MM_FROUND_TO_NEAREST_INT));
      }
    }
    if (stride == 1) {
      // Eight neighbouring windows whose columns lie inside the input, summed in the same
      // order with a rounding to half after every term.
      auto round8 = [](__m256 v) { return _mm256_cvtph_ps(_mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT)); };
      const __m256 area8 = _mm256_set1_ps(area);
      j = std::min(pad, out_w);
      const int first = j;
      for (; j <= in_w - size + pad - 8 && j + 8 <= out_w; j += 8) {
        __m256 sum = _mm256_setzero_ps();
        for (int n = ny0; n < ny1; ++n) {
          const Ftype* row = input + plane + (size_t)(y0 + n) * in_w + (j - pad);
          for (int m = 0; m < size; ++m)
            sum = round8(_mm256_add_ps(sum, _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + m)))));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + j),
                         _mm256_cvtps_ph(_mm256_div_ps(sum, area8), _MM_FROUND_TO_NEAREST_INT));
      }
      // The border windows before the vector blocks, then the rest, one by one.
      for (int jj = 0; jj < first; ++jj) out[jj] = avg_window(input, plane, in_h, in_w, y0, ny0, ny1, jj - pad, size, area);
    }
#endif
    for (; j < out_w; ++j) out[j] = avg_window(input, plane, in_h, in_w, y0, ny0, ny1, j * stride - pad, size, area);
  });
}

void avg_backward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                  int pad, const Ftype* delta, Ftype* prev_delta) {
  const float area = (float)size * size;
  for_each_row(batch * in_c, in_h, [&](int y, int k) {
    int i0, i1;
    covering(y, pad, size, stride, out_h, i0, i1);
    for (int x = 0; x < in_w; ++x) {
      int j0, j1;
      covering(x, pad, size, stride, out_w, j0, j1);
      float sum = 0.f;
      for (int i = i0; i <= i1; ++i)
        for (int j = j0; j <= j1; ++j) sum += h2f(delta[((size_t)k * out_h + i) * out_w + j]);
      const size_t at = ((size_t)k * in_h + y) * in_w + x;
      prev_delta[at] = f2h(h2f(prev_delta[at]) + sum / area);
    }
  });
}

void global_forward(void* handle, int planes, int plane, int square, int tmin, int tmax, const Ftype* input,
                    int* order, Ftype* output) {
  const bool trim = tmin || tmax;
  tbb::parallel_for(tbb::blocked_range<int>(0, planes, 4), [&](const tbb::blocked_range<int>& r) {
    for (int q = r.begin(); q != r.end(); ++q) {
      const Ftype* x = input + (size_t)q * plane;
      _half sum = fp_0;
      if (!trim) {
        for (int p = 0; p < plane; ++p) sum = hadd(sum, square ? hmul(x[p], x[p]) : x[p]);
        output[q] = f2h(h2f(sum) / (float)plane);
        continue;
      }
      // Stable insertion sort of the positions by value, as the device thread does it.
      int* ord = order + (size_t)q * plane;
      for (int p = 0; p < plane; ++p) {
        const float v = h2f(x[p]);
        int j = p - 1;
        while (j >= 0 && h2f(x[ord[j]]) > v) {
          ord[j + 1] = ord[j];
          --j;
        }
        ord[j + 1] = p;
      }
      for (int rank = tmin; rank < plane - tmax; ++rank) {
        const Ftype v = x[ord[rank]];
        sum = hadd(sum, square ? hmul(v, v) : v);
      }
      output[q] = f2h(h2f(sum) / (float)(plane - tmin - tmax));
    }
  });
}

void global_backward(void* handle, int planes, int plane, int square, int tmin, int tmax, const Ftype* input,
                     const int* order, const Ftype* delta, Ftype* prev_delta) {
  const bool trim = tmin || tmax;
  const float count = (float)(plane - tmin - tmax);
  tbb::parallel_for(tbb::blocked_range<int>(0, planes, 4), [&](const tbb::blocked_range<int>& r) {
    for (int q = r.begin(); q != r.end(); ++q) {
      const size_t base = (size_t)q * plane;
      const float g = h2f(delta[q]) / count;
      for (int rank = tmin; rank < plane - tmax; ++rank) {
        const size_t at = base + (trim ? order[base + rank] : rank);
        const float d = square ? g * 2.f * h2f(input[at]) : g;
        prev_delta[at] = f2h(h2f(prev_delta[at]) + d);
      }
    }
  });
}

}  // namespace pool
}  // namespace cpu
