// Host twins of the tensor operations. Every half step is one float operation rounded to
// nearest even (half_math.h), and every reduction visits its terms in the order the device
// kernel does, so both backends agree bit for bit except where a float library function
// (exp2f, sqrtf, powf) or a fused multiply-add of the device compiler intervenes.
#include <cblas.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "base/error.h"
#include "backend/backend.h"
#include "kernels/blas_kernel.h"
#include "kernels/conv_kernel.h"
#include "kernels/half_math.h"
#include "orva/util.h"

namespace cpu {
namespace {

constexpr int kReduceThreads = 512;  // the partial sums of one device reduction block
constexpr size_t kGrain = 8192;      // elements per TBB task for streaming loops
constexpr float kNormEpsilon = 0.00001f;

inline _half hsub(_half a, _half b) { return f2h(h2f(a) - h2f(b)); }
// Exactly rounded: a float quotient of two halves rounds to the same half as the exact one.
inline _half hdiv(_half a, _half b) { return f2h(h2f(a) / h2f(b)); }
inline _half hneg(_half a) { return _half{(unsigned short)(a.__x ^ 0x8000)}; }
inline _half count_to_half(int count) { return f2h((float)count); }

// e^x in the device's base-2 form, saturated the same way.
inline float softmax_exp(float x) {
  if (x < -105.f) return 0.f;
  if (x > 105.f) return std::numeric_limits<float>::infinity();
  return exp2f(x * 1.442695f);
}

template <typename Body>
void for_each_index(size_t n, Body body) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, kGrain), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t i = r.begin(); i != r.end(); ++i) body(i);
  });
}

// Eight halves widened to float: the streaming kernels compute on Lanes and round back once
// per half op, F16C doing eight conversions per instruction where the compiler targets it.
#if defined(__F16C__)
using Lanes = __m256;
inline Lanes load8(const Ftype* p) { return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
inline __m128i pack8(Lanes v) { return _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT); }
inline void store8(Ftype* p, Lanes v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), pack8(v)); }
inline Lanes round8(Lanes v) { return _mm256_cvtph_ps(pack8(v)); }
inline Lanes splat8(float a) { return _mm256_set1_ps(a); }
inline Lanes mul8(Lanes a, Lanes b) { return _mm256_mul_ps(a, b); }
inline Lanes add8(Lanes a, Lanes b) { return _mm256_add_ps(a, b); }
inline Lanes sub8(Lanes a, Lanes b) { return _mm256_sub_ps(a, b); }
inline Lanes div8(Lanes a, Lanes b) { return _mm256_div_ps(a, b); }
#else
struct Lanes {
  float v[8];
};
template <typename Op>
inline Lanes each8(Op op) {
  Lanes r;
  for (int k = 0; k < 8; ++k) r.v[k] = op(k);
  return r;
}
inline Lanes load8(const Ftype* p) { return each8([&](int k) { return h2f(p[k]); }); }
inline void store8(Ftype* p, Lanes v) {
  for (int k = 0; k < 8; ++k) p[k] = f2h(v.v[k]);
}
inline Lanes round8(Lanes v) { return each8([&](int k) { return h2f(f2h(v.v[k])); }); }
inline Lanes splat8(float a) { return each8([&](int) { return a; }); }
inline Lanes mul8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] * b.v[k]; }); }
inline Lanes add8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] + b.v[k]; }); }
inline Lanes sub8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] - b.v[k]; }); }
inline Lanes div8(Lanes a, Lanes b) { return each8([&](int k) { return a.v[k] / b.v[k]; }); }
#endif

// float(x) * a + b with one rounding, as the device's fused multiply-add. Without FMA hardware
// std::fma is a slow library routine, so the product is formed exactly in double instead.
inline float fused(float x, float a, float b) {
#if defined(__FMA__)
  return std::fma(x, a, b);
#else
  return (float)((double)x * a + b);
#endif
}

#if defined(__F16C__)
inline Lanes fused8(Lanes x, float a, float b) {
#if defined(__FMA__)
  return _mm256_fmadd_ps(x, splat8(a), splat8(b));
#else
  const __m256d a4 = _mm256_set1_pd(a), b4 = _mm256_set1_pd(b);
  const __m128 lo = _mm256_castps256_ps128(x), hi = _mm256_extractf128_ps(x, 1);
  const __m128 rlo = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_mul_pd(_mm256_cvtps_pd(lo), a4), b4));
  const __m128 rhi = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_mul_pd(_mm256_cvtps_pd(hi), a4), b4));
  return _mm256_set_m128(rhi, rlo);
#endif
}
#else
inline Lanes fused8(Lanes x, float a, float b) { return each8([&](int k) { return fused(x.v[k], a, b); }); }
#endif

// Runs eight(i) on blocks [i, i + 8) and one(i) on the tail of [begin, end).
template <typename Eight, typename One>
void in_lanes(size_t begin, size_t end, Eight eight, One one) {
  size_t i = begin;
  for (; i + 8 <= end; i += 8) eight(i);
  for (; i < end; ++i) one(i);
}

// Parallel streaming loop over [0, n) in blocks of eight.
template <typename Eight, typename One>
void for_each_lane(size_t n, Eight eight, One one) {
  tbb::parallel_for(tbb::blocked_range<size_t>(0, n, kGrain),
                    [&](const tbb::blocked_range<size_t>& r) { in_lanes(r.begin(), r.end(), eight, one); });
}

// Sum over batch and spatial positions of filter f, in the device block's order: partial t
// collects positions s = t, t + 512, ... of each batch item in batch order; the partials are
// then added in index order. term(index) gives the half to add at a tensor index.
template <typename Term>
_half filter_sum(int batch, int filters, int spatial, int f, Term term) {
  _half partial[kReduceThreads];
  for (auto& p : partial) p = fp_0;
  for (int b = 0; b < batch; ++b) {
    const size_t base = ((size_t)b * filters + f) * spatial;
    for (int s = 0; s < spatial; ++s) {
      _half& p = partial[s % kReduceThreads];
      p = hadd(p, term(base + s));
    }
  }
  _half total = fp_0;
  for (const _half& p : partial) total = hadd(total, p);
  return total;
}

template <typename Body>
void for_each_filter(int filters, Body body) {
  tbb::parallel_for(tbb::blocked_range<int>(0, filters, 1), [&](const tbb::blocked_range<int>& r) {
    for (int f = r.begin(); f != r.end(); ++f) body(f);
  });
}

// Visits every (batch item, filter) plane of a per-channel operation.
template <typename Body>
void for_each_plane(int batch, int n, Body body) {
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int p = r.begin(); p != r.end(); ++p) body(p / n, p % n);
  });
}

// One softmax over n values spaced `stride` apart, as one device thread computes it.
void softmax_group(const Ftype* input, int n, int stride, float temp, Ftype* output) {
  float largest = -FLT_MAX;
  for (int k = 0; k < n; ++k) largest = std::max(largest, h2f(input[(size_t)k * stride]));
  float sum = 0.f;
  for (int k = 0; k < n; ++k) sum += softmax_exp(h2f(input[(size_t)k * stride]) / temp - largest / temp);
  for (int k = 0; k < n; ++k) {
    const size_t i = (size_t)k * stride;
    output[i] = f2h(softmax_exp(h2f(input[i]) / temp - largest / temp) / sum);
  }
}

// Gradient through a softmax output y: dx_i = y_i * (dy_i - sum_j y_j dy_j).
void softmax_group_backward(const Ftype* y, const Ftype* dy, int n, Ftype* dx) {
  float dot = 0.f;
  for (int j = 0; j < n; ++j) dot += h2f(y[j]) * h2f(dy[j]);
  for (int i = 0; i < n; ++i) dx[i] = f2h(h2f(y[i]) * (h2f(dy[i]) - dot));
}


// Half <-> float rows for the host matrix product; F16C converts eight at a time.
void widen(const Ftype* src, float* dst, size_t n) {
  size_t i = 0;
#if defined(__F16C__)
  for (; i + 8 <= n; i += 8)
    _mm256_storeu_ps(dst + i, _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i))));
#endif
  for (; i < n; ++i) dst[i] = h2f(src[i]);
}

void narrow(const float* src, Ftype* dst, size_t n) {
  size_t i = 0;
#if defined(__F16C__)
  for (; i + 8 <= n; i += 8)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i),
                     _mm256_cvtps_ph(_mm256_loadu_ps(src + i), _MM_FROUND_TO_NEAREST_INT));
#endif
  for (; i < n; ++i) dst[i] = f2h(src[i]);
}

// Scratch slots of the host matrix product (the backend's grow-only buffers).
enum GemmScratch { kScratchA = 0, kScratchB = 1, kScratchC = 2 };

// Tiles of C. With enough column panels, each thread widens its own panel of op(B) right
// before using it, so the panel stays in cache and the half operand is read from memory once,
// at two bytes per element. With few panels (small N), op(B) is widened once, shared, and the
// rows of C are split among the threads instead.
constexpr size_t kPanelBytes = 512 * 1024;
constexpr int kMinPanel = 256;
constexpr int kMinTileRows = 32;

struct GemmTiling {
  bool shared_b;  // op(B) widened whole before the tiles run
  int nb, panels, mb, row_tiles;
};

GemmTiling gemm_tiling(int M, int N, int K, int threads) {
  GemmTiling t;
  const int fit = std::max(kMinPanel, (int)(kPanelBytes / (sizeof(float) * (size_t)K)));
  int panels = (N + fit - 1) / fit;
  t.shared_b = panels < 2 * threads;
  if (t.shared_b) panels = 1;  // whole rows of C: fewer, larger products
  else panels = (panels + threads - 1) / threads * threads;  // equal shares per thread
  t.nb = std::min(N, ((N + panels - 1) / panels + 15) & ~15);
  t.panels = (N + t.nb - 1) / t.nb;
  const int row_tiles = t.shared_b ? std::min(2 * threads, std::max(1, M / kMinTileRows)) : 1;
  t.mb = (M + row_tiles - 1) / row_tiles;
  t.row_tiles = (M + t.mb - 1) / t.mb;
  return t;
}

// C = BETA * C without a product (K = 0); BETA = 0 writes zeros without reading C.
void scale_rows(int M, int N, float BETA, Ftype* C, int ldc) {
  for (int i = 0; i < M; ++i)
    for (int j = 0; j < N; ++j) {
      Ftype& c = C[(size_t)i * ldc + j];
      c = BETA == 0.f ? fp_0 : f2h(BETA * h2f(c));
    }
}

// Widens `rows` rows of `cols` halves (row length `ld`) into a packed float matrix.
void widen_rows(const Ftype* src, int ld, int rows, int cols, float* dst) {
  tbb::parallel_for(tbb::blocked_range<int>(0, rows, 16), [&](const tbb::blocked_range<int>& r) {
    for (int i = r.begin(); i != r.end(); ++i) widen(src + (size_t)i * ld, dst + (size_t)i * cols, cols);
  });
}

// OpenBLAS runs single-threaded while the tiles run in TBB's threads: its own pool spinning on
// the same cores would starve them. The setting is process-wide, so it is restored on return.
class SingleThreadedBlas {
 public:
  SingleThreadedBlas() : _threads(openblas_get_num_threads()) {
    if (_threads > 1) openblas_set_num_threads(1);
  }
  ~SingleThreadedBlas() {
    if (_threads > 1) openblas_set_num_threads(_threads);
  }
  SingleThreadedBlas(const SingleThreadedBlas&) = delete;
  SingleThreadedBlas& operator=(const SingleThreadedBlas&) = delete;

 private:
  int _threads;
};

}  // namespace

void blas_single_threaded(const std::function<void()>& body) {
  SingleThreadedBlas single;
  body();
}

void gemm(void* handle, int TA, int TB, int M, int N, int K, float ALPHA, const Ftype* A, int lda, const Ftype* B,
          int ldb, float BETA, Ftype* C, int ldc) {
  if (K == 0) return scale_rows(M, N, BETA, C, ldc);
  ORVA::Backend* backend = ORVA::backend_of(handle);
  const int threads = tbb::this_task_arena::max_concurrency();
  const GemmTiling t = gemm_tiling(M, N, K, threads);
  // Stored shapes: A is K x M when transposed, B is N x K when transposed.
  const int a_rows = TA ? K : M, a_cols = TA ? M : K, b_rows = TB ? N : K, b_cols = TB ? K : N;
  const size_t b_floats = t.shared_b ? (size_t)b_rows * b_cols : (size_t)K * t.nb * threads;
  const size_t c_tile = (size_t)t.mb * t.nb;
  float* a = static_cast<float*>(backend->scratch(kScratchA, sizeof(float) * (size_t)a_rows * a_cols));
  float* b = static_cast<float*>(backend->scratch(kScratchB, sizeof(float) * b_floats));
  float* c = static_cast<float*>(backend->scratch(kScratchC, sizeof(float) * c_tile * threads));
  if (!a || !b || !c)
    ORVA_THROW("blas_gemm: no host scratch for M = %d, N = %d, K = %d", M, N, K);
  widen_rows(A, lda, a_rows, a_cols, a);
  if (t.shared_b) widen_rows(B, ldb, b_rows, b_cols, b);
  SingleThreadedBlas single;
  tbb::parallel_for(tbb::blocked_range<int>(0, t.panels * t.row_tiles, 1), [&](const tbb::blocked_range<int>& r) {
    const int slot = tbb::this_task_arena::current_thread_index();
    float* cp = c + c_tile * slot;
    for (int task = r.begin(); task != r.end(); ++task) {
      const int j0 = (task / t.row_tiles) * t.nb, w = std::min(t.nb, N - j0);
      const int i0 = (task % t.row_tiles) * t.mb, h = std::min(t.mb, M - i0);
      const float* bp;
      int ldbp;
      if (t.shared_b) {
        bp = TB ? b + (size_t)j0 * K : b + j0;
        ldbp = b_cols;
      } else {
        // This thread's panel of op(B): K x w when B is K x N, w rows of K when stored N x K.
        float* own = b + (size_t)K * t.nb * slot;
        if (TB) {
          for (int j = 0; j < w; ++j) widen(B + (size_t)(j0 + j) * ldb, own + (size_t)j * K, K);
        } else {
          for (int k = 0; k < K; ++k) widen(B + (size_t)k * ldb + j0, own + (size_t)k * w, w);
        }
        bp = own;
        ldbp = TB ? K : w;
      }
      if (BETA != 0.f)
        for (int i = 0; i < h; ++i) widen(C + (size_t)(i0 + i) * ldc + j0, cp + (size_t)i * w, w);
      const float* ap = TA ? a + i0 : a + (size_t)i0 * a_cols;
      cblas_sgemm(CblasRowMajor, TA ? CblasTrans : CblasNoTrans, TB ? CblasTrans : CblasNoTrans, h, w, K, ALPHA, ap,
                  a_cols, bp, ldbp, BETA, cp, w);
      for (int i = 0; i < h; ++i) narrow(cp + (size_t)i * w, C + (size_t)(i0 + i) * ldc + j0, w);
    }
  });
}

void im2col(void* handle, const Ftype* im, int channels, int height, int width, int ksize, int stride, int pad,
            Ftype* data_col) {
  const int height_col = (height + 2 * pad - ksize) / stride + 1;
  const int width_col = (width + 2 * pad - ksize) / stride + 1;
  const size_t plane = (size_t)height_col * width_col;
  const int rows = channels * ksize * ksize;
  tbb::parallel_for(tbb::blocked_range<int>(0, rows, 1), [&](const tbb::blocked_range<int>& r) {
    for (int row = r.begin(); row != r.end(); ++row) {
      const int kx = row % ksize, ky = (row / ksize) % ksize, c = row / ksize / ksize;
      const Ftype* src = im + (size_t)c * height * width;
      Ftype* dst = data_col + (size_t)row * plane;
      for (int y = 0; y < height_col; ++y) {
        const int iy = y * stride - pad + ky;
        for (int x = 0; x < width_col; ++x) {
          const int ix = x * stride - pad + kx;
          const bool inside = iy >= 0 && iy < height && ix >= 0 && ix < width;
          dst[(size_t)y * width_col + x] = inside ? src[(size_t)iy * width + ix] : fp_0;
        }
      }
    }
  });
}

void col2im(void* handle, const Ftype* data_col, int channels, int height, int width, int ksize, int stride,
            int pad, Ftype* data_im) {
  const int height_col = (height + 2 * pad - ksize) / stride + 1;
  const int width_col = (width + 2 * pad - ksize) / stride + 1;
  const size_t plane = (size_t)height_col * width_col;
  for_each_index((size_t)channels * height * width, [&](size_t i) {
    const int w = (int)(i % width) + pad, h = (int)((i / width) % height) + pad, c = (int)(i / width / height);
    const int y_first = h < ksize ? 0 : (h - ksize) / stride + 1, y_end = std::min(h / stride + 1, height_col);
    const int x_first = w < ksize ? 0 : (w - ksize) / stride + 1, x_end = std::min(w / stride + 1, width_col);
    float sum = 0.f;
    for (int y = y_first; y < y_end; ++y)
      for (int x = x_first; x < x_end; ++x) {
        const int ky = h - y * stride, kx = w - x * stride;
        sum += h2f(data_col[((size_t)(c * ksize + ky) * ksize + kx) * plane + (size_t)y * width_col + x]);
      }
    data_im[i] = f2h(h2f(data_im[i]) + sum);
  });
}

void copy(void* handle, int N, const Ftype* X, Ftype* Y) { memmove(Y, X, (size_t)N * sizeof(Ftype)); }

void fill(void* handle, int N, Ftype alpha, Ftype* X) { std::fill(X, X + N, alpha); }

void scale(void* handle, int N, Ftype alpha, Ftype* X) {
  const Lanes a8 = splat8(h2f(alpha));
  for_each_lane(
      N, [&](size_t i) { store8(X + i, mul8(load8(X + i), a8)); }, [&](size_t i) { X[i] = hmul(X[i], alpha); });
}

void scale_add(void* handle, int N, float alpha, float beta, Ftype* X) {
  for_each_lane(
      N, [&](size_t i) { store8(X + i, fused8(load8(X + i), alpha, beta)); },
      [&](size_t i) { X[i] = f2h(fused(h2f(X[i]), alpha, beta)); });
}

void axpy(void* handle, int N, Ftype alpha, const Ftype* X, Ftype* Y) {
  const Lanes a8 = splat8(h2f(alpha));
  for_each_lane(
      N, [&](size_t i) { store8(Y + i, add8(load8(Y + i), round8(mul8(a8, load8(X + i))))); },
      [&](size_t i) { Y[i] = hadd(Y[i], hmul(alpha, X[i])); });
}

void constrain(void* handle, int N, Ftype alpha, Ftype* X) {
  const float a = h2f(alpha), neg_a = h2f(hneg(alpha));
  for_each_index(N, [&](size_t i) {
    // Written as the device compares: a NaN fails both tests and becomes a.
    const float x = h2f(X[i]);
    const float t = (neg_a > x) ? neg_a : x;
    X[i] = (a > t) ? f2h(t) : alpha;
  });
}

float sum(void* handle, int N, const Ftype* X) {
  float partial[kReduceThreads] = {};
  for (int i = 0; i < N; ++i) partial[i % kReduceThreads] += h2f(X[i]);
  for (int half_width = kReduceThreads / 2; half_width > 0; half_width /= 2)
    for (int t = 0; t < half_width; ++t) partial[t] += partial[t + half_width];
  return partial[0];
}

void add_bias(void* handle, Ftype* output, const Ftype* bias, int batch, int n, int size) {
  for_each_plane(batch, n, [&](int b, int f) {
    Ftype* o = output + ((size_t)b * n + f) * size;
    const Lanes b8 = splat8(h2f(bias[f]));
    in_lanes(
        0, size, [&](size_t i) { store8(o + i, add8(load8(o + i), b8)); }, [&](size_t i) { o[i] = hadd(o[i], bias[f]); });
  });
}

void scale_bias(void* handle, Ftype* output, const Ftype* scale, int batch, int n, int size) {
  for_each_plane(batch, n, [&](int b, int f) {
    Ftype* o = output + ((size_t)b * n + f) * size;
    const Lanes s8 = splat8(h2f(scale[f]));
    in_lanes(
        0, size, [&](size_t i) { store8(o + i, mul8(load8(o + i), s8)); },
        [&](size_t i) { o[i] = hmul(o[i], scale[f]); });
  });
}

void scale_add_bias(void* handle, Ftype* output, const Ftype* scales, const Ftype* bias, int batch, int n,
                    int size) {
  for_each_plane(batch, n, [&](int b, int f) {
    Ftype* o = output + ((size_t)b * n + f) * size;
    const Lanes s8 = splat8(h2f(scales[f])), b8 = splat8(h2f(bias[f]));
    in_lanes(
        0, size, [&](size_t i) { store8(o + i, add8(round8(mul8(load8(o + i), s8)), b8)); },
        [&](size_t i) { o[i] = hadd(hmul(o[i], scales[f]), bias[f]); });
  });
}

void backward_bias(void* handle, Ftype* bias_update, const Ftype* delta, int batch, int n, int size) {
  for_each_filter(n, [&](int f) {
    bias_update[f] = hadd(bias_update[f], filter_sum(batch, n, size, f, [&](size_t i) { return delta[i]; }));
  });
}

void backward_scale(void* handle, const Ftype* x_norm, const Ftype* delta, int batch, int n, int size,
                    Ftype* scale_updates) {
  for_each_filter(n, [&](int f) {
    const _half s = filter_sum(batch, n, size, f, [&](size_t i) { return hmul(delta[i], x_norm[i]); });
    scale_updates[f] = hadd(scale_updates[f], s);
  });
}

void mean(void* handle, const Ftype* x, int batch, int filters, int spatial, Ftype* mean) {
  const _half count = count_to_half(batch * spatial);
  for_each_filter(filters, [&](int f) {
    mean[f] = hdiv(filter_sum(batch, filters, spatial, f, [&](size_t i) { return x[i]; }), count);
  });
}

void variance(void* handle, const Ftype* x, const Ftype* mean, int batch, int filters, int spatial, Ftype* var) {
  const _half count = count_to_half(batch * spatial - 1);
  for_each_filter(filters, [&](int f) {
    const _half s = filter_sum(batch, filters, spatial, f, [&](size_t i) {
      const _half d = hsub(x[i], mean[f]);
      return hmul(d, d);
    });
    var[f] = hdiv(s, count);
  });
}

void normalize(void* handle, Ftype* x, const Ftype* mean, const Ftype* var, int batch, int filters, int spatial) {
  for_each_plane(batch, filters, [&](int b, int f) {
    Ftype* o = x + ((size_t)b * filters + f) * spatial;
    // sqrtf is correctly rounded, so one root per filter equals one per element.
    const float root = sqrtf(h2f(var[f]) + kNormEpsilon);
    const Lanes m8 = splat8(h2f(mean[f])), r8 = splat8(root);
    in_lanes(
        0, spatial, [&](size_t i) { store8(o + i, div8(round8(sub8(load8(o + i), m8)), r8)); },
        [&](size_t i) { o[i] = f2h(h2f(hsub(o[i], mean[f])) / root); });
  });
}

void mean_delta(void* handle, const Ftype* delta, const Ftype* var, int batch, int filters, int spatial,
                Ftype* mean_delta) {
  for_each_filter(filters, [&](int f) {
    const _half s = filter_sum(batch, filters, spatial, f, [&](size_t i) { return delta[i]; });
    mean_delta[f] = f2h(h2f(s) * (-1.f / sqrtf(h2f(var[f]) + kNormEpsilon)));
  });
}

void variance_delta(void* handle, const Ftype* x, const Ftype* delta, const Ftype* mean, const Ftype* var, int batch,
                    int filters, int spatial, Ftype* var_delta) {
  for_each_filter(filters, [&](int f) {
    const _half s =
        filter_sum(batch, filters, spatial, f, [&](size_t i) { return hmul(delta[i], hsub(x[i], mean[f])); });
    var_delta[f] = f2h(h2f(s) * -0.5f * powf(h2f(var[f]) + kNormEpsilon, -1.5f));
  });
}

void normalize_delta(void* handle, const Ftype* x, const Ftype* mean, const Ftype* var, const Ftype* mean_delta,
                     const Ftype* var_delta, int batch, int filters, int spatial, Ftype* delta) {
  const float count = (float)spatial * batch;
  for_each_index((size_t)batch * filters * spatial, [&](size_t i) {
    const int f = (int)((i / spatial) % filters);
    const float d = h2f(delta[i]) / sqrtf(h2f(var[f]) + kNormEpsilon) +
                    h2f(var_delta[f]) * 2.f * (h2f(x[i]) - h2f(mean[f])) / count + h2f(mean_delta[f]) / count;
    delta[i] = f2h(d);
  });
}

void shortcut(void* handle, int batch, int w1, int h1, int c1, const Ftype* add, int w2, int h2, int c2,
              Ftype alpha, Ftype beta, Ftype* out) {
  const int minw = std::min(w1, w2), minh = std::min(h1, h2), minc = std::min(c1, c2);
  const int stride = std::max(w1 / w2, 1), sample = std::max(w2 / w1, 1);
  for_each_index((size_t)batch * minw * minh * minc, [&](size_t i) {
    const int x = (int)(i % minw), y = (int)(i / minw % minh), k = (int)(i / minw / minh % minc);
    const int b = (int)(i / minw / minh / minc);
    const size_t out_index = (((size_t)b * c2 + k) * h2 + (size_t)y * sample) * w2 + (size_t)x * sample;
    const size_t add_index = (((size_t)b * c1 + k) * h1 + (size_t)y * stride) * w1 + (size_t)x * stride;
    out[out_index] = hadd(hmul(alpha, out[out_index]), hmul(beta, add[add_index]));
  });
}

void reorg(void* handle, const Ftype* x, int w, int h, int c, int batch, int stride, int forward, Ftype* out) {
  const int out_c = c / (stride * stride);
#if defined(__F16C__)
  if (!forward && stride == 2 && w >= 8) {
    // The gather by 2: source row ih * 2 + k of plane (b, c2), 2 w wide, holds in its even
    // and odd columns output row ih of channels (2 k) out_c + c2 and (2 k + 1) out_c + c2, so
    // each sixteen source values are loaded once and split into both rows.
    const size_t pairs = (size_t)batch * out_c * 2 * h;
    const __m128i split = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
    tbb::parallel_for(tbb::blocked_range<size_t>(0, pairs, std::max<size_t>(1, kGrain / (2 * w))),
                      [&](const tbb::blocked_range<size_t>& r) {
                        for (size_t q = r.begin(); q != r.end();) {
                          // One run of rows ih of one (b, c2, k): divisions once per run.
                          const size_t ih0 = q % h, k = q / h % 2, c2 = q / h / 2 % out_c, b = q / h / 2 / out_c;
                          const size_t end = std::min<size_t>(r.end(), q + (h - ih0));
                          const Ftype* src = x + (size_t)w * 2 * ((size_t)h * 2 * (c2 + (size_t)out_c * b) + ih0 * 2 + k);
                          Ftype* even = out + (((size_t)b * c + 2 * k * out_c + c2) * h + ih0) * w;
                          Ftype* odd = even + (size_t)out_c * h * w;
                          for (; q != end; ++q, src += 4 * (size_t)w, even += w, odd += w) {
                            auto eight = [&](int at) {
                              const __m128i lo = _mm_shuffle_epi8(
                                  _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 2 * at)), split);
                              const __m128i hi = _mm_shuffle_epi8(
                                  _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 2 * at + 8)), split);
                              _mm_storeu_si128(reinterpret_cast<__m128i*>(even + at), _mm_unpacklo_epi64(lo, hi));
                              _mm_storeu_si128(reinterpret_cast<__m128i*>(odd + at), _mm_unpackhi_epi64(lo, hi));
                            };
                            int iw = 0;
                            for (; iw + 8 <= w; iw += 8) eight(iw);
                            if (iw < w) eight(w - 8);  // the last eight again rather than a scalar tail
                          }
                        }
                      });
    return;
  }
#endif
  // Row by row: along a row of w elements only the column moves, by one on one side and by
  // stride on the other, so the index arithmetic is paid once per row.
  const size_t rows = (size_t)h * c * batch;
  tbb::parallel_for(tbb::blocked_range<size_t>(0, rows, std::max<size_t>(1, kGrain / std::max(w, 1))),
                    [&](const tbb::blocked_range<size_t>& r) {
                      // Divisions once per task; the row's place then advances by counting.
                      size_t ih = r.begin() % h, ic = r.begin() / h % c, b = r.begin() / h / c;
                      size_t c2, offset, plane;  // of channel ic
                      auto channel = [&] {
                        c2 = ic % out_c, offset = ic / out_c;
                        plane = (size_t)w * stride * ((size_t)h * stride * (c2 + (size_t)out_c * b) + offset / stride) +
                                offset % stride;
                      };
                      channel();
                      for (size_t row = r.begin(); row != r.end(); ++row, ++ih) {
                        if (ih == (size_t)h) {
                          ih = 0;
                          if (++ic == (size_t)c) ic = 0, ++b;
                          channel();
                        }
                        const size_t base = plane + (size_t)w * stride * ih * stride;
                        const Ftype* src = x + row * w;
                        Ftype* dst = out + row * w;
                        if (forward)
                          for (int iw = 0; iw < w; ++iw) out[base + (size_t)iw * stride] = src[iw];
                        else
                          for (int iw = 0; iw < w; ++iw) dst[iw] = x[base + (size_t)iw * stride];
                      }
                    });
}

void flatten(void* handle, const Ftype* x, int spatial, int layers, int batch, int forward, Ftype* out) {
  for_each_index((size_t)spatial * layers * batch, [&](size_t i) {
    const size_t s = i % spatial, c = i / spatial % layers, b = i / spatial / layers;
    const size_t i_in = (b * layers + c) * spatial + s, i_out = (b * spatial + s) * layers + c;
    if (forward)
      out[i_out] = x[i_in];
    else
      out[i_in] = x[i_out];
  });
}

void softmax_strided(void* handle, const Ftype* input, int n, int batch, int batch_offset, int groups,
                     int group_offset, int stride, float temp, Ftype* output) {
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * groups, 16), [&](const tbb::blocked_range<int>& r) {
    for (int id = r.begin(); id != r.end(); ++id) {
      const size_t base = (size_t)(id / groups) * batch_offset + (size_t)(id % groups) * group_offset;
      softmax_group(input + base, n, stride, temp, output + base);
    }
  });
}

void softmax_mapped(void* handle, const Ftype* input, int batch, int batch_offset, int groups, const int* gmap,
                    float temp, Ftype* output) {
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * groups, 16), [&](const tbb::blocked_range<int>& r) {
    for (int id = r.begin(); id != r.end(); ++id) {
      const int g = id % groups;
      size_t base = (size_t)(id / groups) * batch_offset;
      for (int j = 0; j < g; ++j) base += gmap[j];
      softmax_group(input + base, gmap[g], 1, temp, output + base);
    }
  });
}

void softmax2d(void* handle, const Ftype* input, int h, int w, Ftype* output) {
  tbb::parallel_for(tbb::blocked_range<int>(0, h, 16), [&](const tbb::blocked_range<int>& r) {
    for (int row = r.begin(); row != r.end(); ++row)
      softmax_group(input + (size_t)row * w, w, 1, 1.f, output + (size_t)row * w);
  });
}

void softmax_backward(void* handle, const Ftype* output, const Ftype* delta, int n, Ftype* odelta) {
  softmax_group_backward(output, delta, n, odelta);
}

void softmax2d_backward(void* handle, const Ftype* output, const Ftype* delta, int h, int w, Ftype* odelta) {
  tbb::parallel_for(tbb::blocked_range<int>(0, h, 16), [&](const tbb::blocked_range<int>& r) {
    for (int row = r.begin(); row != r.end(); ++row) {
      const size_t base = (size_t)row * w;
      softmax_group_backward(output + base, delta + base, w, odelta + base);
    }
  });
}

}  // namespace cpu
