// Host convolution. Forward: float products of the widened weights and column panels that are
// gathered and widened straight from the image (no half column matrix in memory), one
// rounding per output element, like the device. Backward: dilated im2col / col2im into the
// network workspace and products through blas_gemm. The 8-bit pass is in conv_int8_host.cpp.
#include <cblas.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kernels/activation_kernel.h"
#include "base/error.h"
#include "backend/backend.h"
#include "kernels/conv_kernel.h"
#include "kernels/conv_int8_host.h"
#include "kernels/half_lanes.h"
#include "kernels/half_math.h"
#include "orva/gemm.h"
#include "orva/util.h"

namespace cpu {
namespace {

// A 1x1 kernel with unit stride and no border reads the image itself as its column matrix.
bool reads_image_directly(const ConvShape& s) {
  return s.size == 1 && s.stride == 1 && s.pad == 0 && s.dilation == 1;
}

size_t col_elements(const ConvShape& s) {
  return (size_t)(s.in_c / s.groups) * s.size * s.size * s.out_h * s.out_w;
}

// dst[i] = float(src[i * stride]), i < n.
void widen_strided(const Ftype* src, int stride, int n, float* dst) {
  int i = 0;
  if (stride == 1) {
    for (; i + 8 <= n; i += 8) storef8(dst + i, load8(src + i));
  } else if (stride == 2) {
    // Reads src[2i .. 2i + 15]: the loop stops before 2i + 15 passes the last element, 2(n - 1).
    for (; i + 8 <= n - 1; i += 8) storef8(dst + i, load8_even(src + 2 * i));
  }
  for (; i < n; ++i) dst[i] = h2f(src[(size_t)i * stride]);
}

int floor_div(int a, int b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// Columns [j0, j0 + w) of the column matrix of one image (rows (c * size + ky) * size + kx,
// columns out_h * out_w), widened to float into dst with row length ld. Each output row is a
// run of the image row: the border is zero-filled once and the inside copied in one pass.
void pack_columns(const ConvShape& s, const Ftype* im, int channels, int j0, int w, float* dst, size_t ld) {
  for (int c = 0; c < channels; ++c)
    for (int ky = 0; ky < s.size; ++ky)
      for (int kx = 0; kx < s.size; ++kx) {
        const Ftype* plane = im + (size_t)c * s.in_h * s.in_w;
        float* d = dst + ((size_t)(c * s.size + ky) * s.size + kx) * ld;
        const int off = kx * s.dilation - s.pad;  // ix = x * stride + off
        // Output columns whose ix falls inside the image: [x_lo, x_hi).
        const int x_lo = off >= 0 ? 0 : (-off + s.stride - 1) / s.stride;
        const int x_hi = floor_div(s.in_w - 1 - off, s.stride) + 1;
        for (int j = j0, end = j0 + w; j < end;) {
          const int y = j / s.out_w, x0 = j - y * s.out_w, x1 = std::min(s.out_w, x0 + (end - j));
          const int iy = y * s.stride - s.pad + ky * s.dilation;
          const int a = std::min(std::max(x0, x_lo), x1), b = std::max(std::min(x1, x_hi), a);
          if (iy < 0 || iy >= s.in_h) {
            std::fill(d, d + (x1 - x0), 0.f);
          } else {
            std::fill(d, d + (a - x0), 0.f);
            widen_strided(plane + (size_t)iy * s.in_w + a * s.stride + off, s.stride, b - a, d + (a - x0));
            std::fill(d + (b - x0), d + (x1 - x0), 0.f);
          }
          d += x1 - x0;
          j += x1 - x0;
        }
      }
}

void narrow_span(const float* src, Ftype* dst, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) store8(dst + i, loadf8(src + i));
  for (; i < n; ++i) dst[i] = f2h(src[i]);
}

// The last pass of a forward product: float rows of filter f to half, with the filter's bias
// and the activation when the caller asked for them (the tile is still in cache; a separate
// pass would read the output back from memory).
struct OutputStep {
  const Ftype* bias = nullptr;
  NarrowBiasActivateFn activate = nullptr;
  void operator()(const float* src, Ftype* dst, int n, int f) const {
    if (activate) activate(src, dst, n, bias[f]);
    else narrow_span(src, dst, n);
  }
};

// Scratch slots of the forward product (the backend's grow-only buffers).
enum ForwardScratch { kScratchWeights = 0, kScratchColumns = 1, kScratchTiles = 2, kScratchRows = 3 };

// Tiles over the columns of all samples of a pass side by side (batch * out_h * out_w), so
// that small late layers still give the product wide operands. With enough column panels each
// thread gathers its own panel right before its product (it stays in cache); with few, the
// column matrix is gathered once, shared, and the filters are split among the threads.
constexpr size_t kPanelBytes = 512 * 1024;
constexpr int kMinPanel = 256;
constexpr int kMinTileRows = 32;

struct ForwardTiling {
  bool shared;
  int nb, panels, mb, row_tiles;
};

ForwardTiling forward_tiling(int M, long long columns, int K, int threads) {
  ForwardTiling t;
  const long long fit = std::max(kMinPanel, (int)(kPanelBytes / (sizeof(float) * (size_t)K)));
  long long panels = (columns + fit - 1) / fit;
  t.shared = panels < 2 * threads;
  if (t.shared) panels = 1;
  else panels = (panels + threads - 1) / threads * threads;
  t.nb = (int)std::min(columns, ((columns + panels - 1) / panels + 15) & ~15LL);
  t.panels = (int)((columns + t.nb - 1) / t.nb);
  const int row_tiles = t.shared ? std::min(2 * threads, std::max(1, M / kMinTileRows)) : 1;
  t.mb = (M + row_tiles - 1) / row_tiles;
  t.row_tiles = (M + t.mb - 1) / t.mb;
  return t;
}

// Calls f(sample, first column in the sample, global offset, count) for the pieces of the
// global column range [J, J + w) that lie in one sample each.
template <typename F>
void for_sample_pieces(long long J, int w, int N, F f) {
  for (long long end = J + w; J < end;) {
    const int b = (int)(J / N), j = (int)(J - (long long)b * N);
    const int n = (int)std::min<long long>(N - j, end - J);
    f(b, j, (int)(w - (end - J)), n);
    J += n;
  }
}

// Products with the weights packed once: on AVX-512 hosts the Winograd products run through
// this kernel instead of OpenBLAS, whose sgemm packs both operands on every call; for the
// large late layers that is most of the pass's memory traffic (the transformed weights of a
// 13 x 13 x 1024 -> 1024 layer are 64 MB, read twice and written once per pass for a product
// of only 49 tile columns at batch 1). The weights are kept as [row block][k][kPackRows]
// floats (rows past the last zero); the other operand is read as it lies (row-major K x N,
// its rows in cache), 16 columns to a vector, the last vector masked. Float sums in k order.
constexpr int kPackRows = 8;  // weight rows per register block: 8 x 3 vectors of sums

size_t packed_rows(int rows) { return (size_t)(rows + kPackRows - 1) / kPackRows * kPackRows; }

#if defined(__x86_64__)
bool packed_products() { return __builtin_cpu_supports("avx512f"); }

// c[0..rows) x [0..16 V) = a (packed block, K x kPackRows) times b (K rows of ldb), the
// last vector's columns masked by `last`.
// Row k of b is b + k * ldb, or b + off[k] when the caller gives offsets (a convolution read
// straight from its phase planes).
template <int V, bool kOffsets>
__attribute__((target("avx512f"))) void packed_block(int K, const float* a, const float* b, size_t ldb, const int* off,
                                                     float* c, size_t ldc, int rows, __mmask16 last) {
  __m512 acc[kPackRows][V];
  for (int r = 0; r < kPackRows; ++r)
    for (int j = 0; j < V; ++j) acc[r][j] = _mm512_setzero_ps();
  for (int k = 0; k < K; ++k, a += kPackRows) {
    const float* bk = kOffsets ? b + off[k] : b + (size_t)k * ldb;
    __m512 bv[V];
#pragma GCC unroll 3
    for (int j = 0; j < V; ++j) bv[j] = j + 1 < V ? _mm512_loadu_ps(bk + 16 * j) : _mm512_maskz_loadu_ps(last, bk + 16 * j);
#pragma GCC unroll 8
    for (int r = 0; r < kPackRows; ++r) {
      const __m512 av = _mm512_set1_ps(a[r]);
#pragma GCC unroll 3
      for (int j = 0; j < V; ++j) acc[r][j] = _mm512_fmadd_ps(av, bv[j], acc[r][j]);
    }
  }
  // Every row stored through the same unrolled code (a loop that stopped early would keep the
  // sums in memory instead of registers); the rows past `rows` go to a scratch block.
  alignas(64) float spare[16 * V];
#pragma GCC unroll 8
  for (int r = 0; r < kPackRows; ++r) {
    float* dst = r < rows ? c + r * ldc : spare;
#pragma GCC unroll 3
    for (int j = 0; j + 1 < V; ++j) _mm512_storeu_ps(dst + 16 * j, acc[r][j]);
    _mm512_mask_storeu_ps(dst + 16 * (V - 1), last, acc[r][V - 1]);
  }
}

// The last nc <= 4 columns of a product, where a 16-lane block would fill only nc lanes (the
// 13 x 13 Winograd products have 49 tile columns at batch 1, 196 at batch 4): eight filter rows
// are one 8-lane sum per column instead, NB row blocks at a time, the column's value
// broadcast. The same fused multiply-adds in k order, so the same bits as the block kernel.
template <int NB, int NC, bool kOffsets>
__attribute__((target("avx512f,fma"))) void packed_tail(int K, const float* a, const float* b, size_t ldb,
                                                         const int* off, float* c, size_t ldc, int rows) {
  __m256 acc[NB][NC];
  for (int q = 0; q < NB; ++q)
    for (int j = 0; j < NC; ++j) acc[q][j] = _mm256_setzero_ps();
  for (int k = 0; k < K; ++k) {
    const float* bk = kOffsets ? b + off[k] : b + (size_t)k * ldb;
    __m256 bv[NC];
#pragma GCC unroll 4
    for (int j = 0; j < NC; ++j) bv[j] = _mm256_broadcast_ss(bk + j);
#pragma GCC unroll 4
    for (int q = 0; q < NB; ++q) {
      const __m256 av = _mm256_loadu_ps(a + ((size_t)q * K + k) * kPackRows);
#pragma GCC unroll 4
      for (int j = 0; j < NC; ++j) acc[q][j] = _mm256_fmadd_ps(av, bv[j], acc[q][j]);
    }
  }
  for (int q = 0; q < NB; ++q)
    for (int j = 0; j < NC; ++j) {
      alignas(32) float t[kPackRows];
      _mm256_store_ps(t, acc[q][j]);
      for (int r = 0; r < std::min(kPackRows, rows - q * kPackRows); ++r) c[(size_t)(q * kPackRows + r) * ldc + j] = t[r];
    }
}

template <int NC, bool kOffsets>
void packed_tail_rows(int M, int K, const float* ap, const float* b, size_t ldb, const int* off, float* c,
                      size_t ldc) {
  int i = 0;
  for (; i + 4 * kPackRows <= M; i += 4 * kPackRows)
    packed_tail<4, NC, kOffsets>(K, ap + (size_t)i * K, b, ldb, off, c + (size_t)i * ldc, ldc, M - i);
  for (; i < M; i += kPackRows)
    packed_tail<1, NC, kOffsets>(K, ap + (size_t)i * K, b, ldb, off, c + (size_t)i * ldc, ldc, M - i);
}

template <bool kOffsets>
void packed_tail_columns(int nc, int M, int K, const float* ap, const float* b, size_t ldb, const int* off, float* c,
                         size_t ldc) {
  switch (nc) {
    case 1: return packed_tail_rows<1, kOffsets>(M, K, ap, b, ldb, off, c, ldc);
    case 2: return packed_tail_rows<2, kOffsets>(M, K, ap, b, ldb, off, c, ldc);
    case 3: return packed_tail_rows<3, kOffsets>(M, K, ap, b, ldb, off, c, ldc);
    default: return packed_tail_rows<4, kOffsets>(M, K, ap, b, ldb, off, c, ldc);
  }
}

// C (M x N, ldc) = A (M x K, packed) B (K x N, ldb). Column blocks keep B's part in cache
// while every row block passes over it.
void packed_product(int M, int N, int K, const float* ap, const float* b, size_t ldb, float* c, size_t ldc,
                    const int* off = nullptr) {
  // The tail columns of each group of four row blocks right after the group's last blocks,
  // while its weights are still in cache (a pass of its own read them from memory again).
  const int tail = N > 48 && N % 48 <= 4 ? N % 48 : 0;
  N -= tail;
  auto tail_group = [&](int i) {
    const int g0 = i / (4 * kPackRows) * (4 * kPackRows), rows = std::min(M, i + kPackRows) - g0;
    if (off) packed_tail_columns<true>(tail, rows, K, ap + (size_t)g0 * K, b + N, ldb, off, c + (size_t)g0 * ldc + N, ldc);
    else packed_tail_columns<false>(tail, rows, K, ap + (size_t)g0 * K, b + N, ldb, off, c + (size_t)g0 * ldc + N, ldc);
  };
  const int nc = std::max(48, (int)(256 * 1024 / (sizeof(float) * std::max(K, 1))) / 48 * 48);
  for (int jc = 0; jc < N; jc += nc)
    for (int i = 0; i < M; i += kPackRows) {
      const float* a = ap + (size_t)i * K;
      const int rows = std::min(kPackRows, M - i);
      for (int j = jc, end = std::min(N, jc + nc); j < end; j += 48) {
        const int n = std::min(48, end - j);
        const __mmask16 last = (__mmask16)((1u << ((n - 1) % 16 + 1)) - 1);
        float* cj = c + (size_t)i * ldc + j;
        if (off) {
          if (n > 32) packed_block<3, true>(K, a, b + j, 0, off, cj, ldc, rows, last);
          else if (n > 16) packed_block<2, true>(K, a, b + j, 0, off, cj, ldc, rows, last);
          else packed_block<1, true>(K, a, b + j, 0, off, cj, ldc, rows, last);
        } else {
          if (n > 32) packed_block<3, false>(K, a, b + j, ldb, nullptr, cj, ldc, rows, last);
          else if (n > 16) packed_block<2, false>(K, a, b + j, ldb, nullptr, cj, ldc, rows, last);
          else packed_block<1, false>(K, a, b + j, ldb, nullptr, cj, ldc, rows, last);
        }
      }
      if (tail && jc + nc >= N && (i / kPackRows % 4 == 3 || i + kPackRows >= M)) tail_group(i);
    }
}
#else
bool packed_products() { return false; }
void packed_product(int, int, int, const float*, const float*, size_t, float*, size_t, const int* = nullptr) {}
#endif

// 3x3 stride-1 kernels with many channels take the Winograd F(2x2, 3x3) product: each 2x2
// block of outputs from a 4x4 input tile with 16 multiplications per channel pair instead
// of 36, as 16 independent products U_t (filters x channels) V_t (channels x tiles). The
// transforms are additions and halvings in float; the output is rounded once, as the direct
// product's is. The transformed weights (16 x filters x channels floats) are kept in the
// plan with a copy of the half weights they came from, and rebuilt when those change.
class HostConvPlan : public ConvPlan {
 public:
  using ConvPlan::ConvPlan;
  std::vector<float> wino_u;
  bool wino_packed = false;  // wino_u as packed blocks for packed_product, else plain matrices
  std::vector<Ftype> wino_source;
  const Ftype* wino_from = nullptr;
  Int8Filters int8;
};

bool takes_winograd(const ConvShape& s) {
  return s.size == 3 && s.stride == 1 && s.dilation == 1 && s.groups == 1 && !s.train && s.in_c >= 32 &&
         s.out_c >= 32;
}

void winograd_weights(HostConvPlan* p, const Ftype* weight) {
  const ConvShape& s = p->shape;
  const size_t n = (size_t)s.out_c * s.in_c * 9, mc = (size_t)s.out_c * s.in_c;
  if (p->wino_from == weight && !p->wino_source.empty() && memcmp(p->wino_source.data(), weight, n * sizeof(Ftype)) == 0)
    return;
  p->wino_source.assign(weight, weight + n);
  p->wino_from = weight;
  float* u = p->wino_u.data();
  const size_t per_t = p->wino_u.size() / 16;
  tbb::parallel_for(tbb::blocked_range<size_t>(0, mc, 256), [&](const tbb::blocked_range<size_t>& r) {
    for (size_t fc = r.begin(); fc != r.end(); ++fc) {
      const size_t f = fc / s.in_c, c = fc % s.in_c;
      const size_t at = p->wino_packed ? (f / kPackRows * s.in_c + c) * kPackRows + f % kPackRows : fc;
      float g[9], t[4][3];
      for (int k = 0; k < 9; ++k) g[k] = h2f(weight[fc * 9 + k]);
      for (int j = 0; j < 3; ++j) {  // G g
        t[0][j] = g[j];
        t[1][j] = 0.5f * (g[j] + g[3 + j] + g[6 + j]);
        t[2][j] = 0.5f * (g[j] - g[3 + j] + g[6 + j]);
        t[3][j] = g[6 + j];
      }
      for (int i = 0; i < 4; ++i) {  // (G g) G^T
        const float v[4] = {t[i][0], 0.5f * (t[i][0] + t[i][1] + t[i][2]), 0.5f * (t[i][0] - t[i][1] + t[i][2]),
                            t[i][2]};
        for (int j = 0; j < 4; ++j) u[(size_t)(i * 4 + j) * per_t + at] = v[j];
      }
    }
  });
}

#if defined(__x86_64__)
bool winograd_rows16() { return __builtin_cpu_supports("avx512f"); }

// Lanes [0, n) of a mask, n clamped to [0, 16].
inline __mmask16 first_lanes(int n) { return n >= 16 ? (__mmask16)0xFFFF : n <= 0 ? (__mmask16)0 : (__mmask16)((1u << n) - 1); }

// The input transform of one row of tiles, sixteen tiles at a time: the four padded rows d
// (row_len floats each) split into even and odd columns in registers, then the scalar loop's
// additions in its order, so the results are its bits.
__attribute__((target("avx512f"))) void winograd_input16(const float* const* d, int row_len, int tw, float* out,
                                                           size_t step) {
  const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
  const __m512i odd = _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
  for (int tx = 0; tx < tw; tx += 16) {
    const __mmask16 keep = first_lanes(tw - tx);
    __m512 x[4][4];  // x[i][j] = d[i][2 tx + j] for sixteen tiles
    for (int i = 0; i < 4; ++i)
      for (int shift = 0; shift < 4; shift += 2) {
        const float* p = d[i] + 2 * tx + shift;
        const int avail = row_len - 2 * tx - shift;
        const __m512 lo = _mm512_maskz_loadu_ps(first_lanes(avail), p);
        const __m512 hi = _mm512_maskz_loadu_ps(first_lanes(avail - 16), p + 16);
        x[i][shift] = _mm512_permutex2var_ps(lo, even, hi);
        x[i][shift + 1] = _mm512_permutex2var_ps(lo, odd, hi);
      }
    for (int j = 0; j < 4; ++j) {
      const __m512 t0 = _mm512_sub_ps(x[0][j], x[2][j]), t1 = _mm512_add_ps(x[1][j], x[2][j]);
      const __m512 t2 = _mm512_sub_ps(x[2][j], x[1][j]), t3 = _mm512_sub_ps(x[1][j], x[3][j]);
      x[0][j] = t0, x[1][j] = t1, x[2][j] = t2, x[3][j] = t3;
    }
    for (int i = 0; i < 4; ++i) {
      float* o = out + (size_t)(i * 4) * step + tx;
      _mm512_mask_storeu_ps(o, keep, _mm512_sub_ps(x[i][0], x[i][2]));
      _mm512_mask_storeu_ps(o + step, keep, _mm512_add_ps(x[i][1], x[i][2]));
      _mm512_mask_storeu_ps(o + 2 * step, keep, _mm512_sub_ps(x[i][2], x[i][1]));
      _mm512_mask_storeu_ps(o + 3 * step, keep, _mm512_sub_ps(x[i][1], x[i][3]));
    }
  }
}

// The output transform of one row of tiles (q[k * step + tx], k < 16) into two output rows,
// sixteen tiles at a time, the scalar loop's additions in its order.
__attribute__((target("avx512f"))) void winograd_output16(const float* q, size_t step, int tw, float* y0, float* y1) {
  const __m512i lo = _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
  const __m512i hi = _mm512_setr_epi32(8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
  for (int tx = 0; tx < tw; tx += 16) {
    const __mmask16 keep = first_lanes(tw - tx);
    __m512 a[16];
    for (int k = 0; k < 16; ++k) a[k] = _mm512_maskz_loadu_ps(keep, q + k * step + tx);
    __m512 t0[4], t1[4];
    for (int j = 0; j < 4; ++j) {
      t0[j] = _mm512_add_ps(_mm512_add_ps(a[j], a[4 + j]), a[8 + j]);
      t1[j] = _mm512_sub_ps(_mm512_sub_ps(a[4 + j], a[8 + j]), a[12 + j]);
    }
    const int n = 2 * std::min(16, tw - tx);
    for (int r = 0; r < 2; ++r) {
      const __m512* t = r ? t1 : t0;
      float* y = (r ? y1 : y0) + 2 * tx;
      const __m512 e = _mm512_add_ps(_mm512_add_ps(t[0], t[1]), t[2]);
      const __m512 o = _mm512_sub_ps(_mm512_sub_ps(t[1], t[2]), t[3]);
      _mm512_mask_storeu_ps(y, first_lanes(n), _mm512_permutex2var_ps(e, lo, o));
      _mm512_mask_storeu_ps(y + 16, first_lanes(n - 16), _mm512_permutex2var_ps(e, hi, o));
    }
  }
}
#else
bool winograd_rows16() { return false; }
void winograd_input16(const float* const*, int, int, float*, size_t) {}
void winograd_output16(const float*, size_t, int, float*, float*) {}
#endif

void winograd_forward(HostConvPlan* p, ORVA::Backend* backend, int batch, const Ftype* input, const Ftype* weight,
                      Ftype* output, const OutputStep& finish) {
  const ConvShape& s = p->shape;
  const int C = s.in_c, M = s.out_c;
  const int th = (s.out_h + 1) / 2, tw = (s.out_w + 1) / 2;
  const size_t tiles = (size_t)th * tw, T = tiles * batch;
  const int threads = tbb::this_task_arena::max_concurrency();
  const int row_len = 2 * tw + 2;  // a padded input row of the tiles; also holds two output rows
  float* v = static_cast<float*>(backend->scratch(kScratchColumns, sizeof(float) * 16 * C * T));
  float* m = static_cast<float*>(backend->scratch(kScratchTiles, sizeof(float) * 16 * M * T));
  float* rows_all = static_cast<float*>(backend->scratch(kScratchRows, sizeof(float) * 4 * row_len * threads));
  if (!v || !m || !rows_all)
    ORVA_THROW("conv_forward: no host scratch for %d x %d x %zu transformed tiles", M, C, T);
  winograd_weights(p, weight);
  const bool rows16 = winograd_rows16();
  // Input tiles: V = B^T d B, rows of the padded image widened once per tile row.
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * C), [&](const tbb::blocked_range<int>& r) {
    float* rows = rows_all + (size_t)4 * row_len * tbb::this_task_arena::current_thread_index();
    for (int bc = r.begin(); bc != r.end(); ++bc) {
      const int b = bc / C, c = bc % C;
      const Ftype* plane = input + ((size_t)b * C + c) * s.in_h * s.in_w;
      for (int ty = 0; ty < th; ++ty) {
        for (int i = 0; i < 4; ++i) {
          float* row = rows + (size_t)i * row_len;
          const int iy = 2 * ty - s.pad + i;
          std::fill(row, row + row_len, 0.f);
          if (iy < 0 || iy >= s.in_h) continue;
          const int x0 = std::max(0, s.pad), x1 = std::min(row_len, s.in_w + s.pad);  // row[x] = image[x - pad]
          if (x1 > x0) widen_strided(plane + (size_t)iy * s.in_w + (x0 - s.pad), 1, x1 - x0, row + x0);
        }
        const float *d0 = rows, *d1 = d0 + row_len, *d2 = d1 + row_len, *d3 = d2 + row_len;
        float* out = v + (size_t)c * T + (size_t)b * tiles + (size_t)ty * tw;
        const size_t step = (size_t)C * T;
        if (rows16) {
          const float* d[4] = {d0, d1, d2, d3};
          winograd_input16(d, row_len, tw, out, step);
          continue;
        }
        for (int tx = 0; tx < tw; ++tx) {
          float t[4][4];
          for (int j = 0; j < 4; ++j) {
            const int x = 2 * tx + j;
            t[0][j] = d0[x] - d2[x];
            t[1][j] = d1[x] + d2[x];
            t[2][j] = d2[x] - d1[x];
            t[3][j] = d1[x] - d3[x];
          }
          for (int i = 0; i < 4; ++i) {
            float* o = out + (size_t)(i * 4) * step + tx;
            o[0] = t[i][0] - t[i][2];
            o[step] = t[i][1] + t[i][2];
            o[2 * step] = t[i][2] - t[i][1];
            o[3 * step] = t[i][1] - t[i][3];
          }
        }
      }
    }
  });
  // Sixteen products, split by filters too when there are more threads than products.
  const int row_tiles = std::max(1, std::min(M / kMinTileRows, (2 * threads + 15) / 16));
  const float* u = p->wino_u.data();
  if (p->wino_packed) {
    const int mb = (int)packed_rows((M + row_tiles - 1) / row_tiles);
    const size_t per_t = p->wino_u.size() / 16;
    tbb::parallel_for(0, 16 * row_tiles, [&](int task) {
      const int t = task / row_tiles, i0 = (task % row_tiles) * mb, h = std::min(mb, M - i0);
      if (h <= 0) return;
      packed_product(h, (int)T, C, u + t * per_t + (size_t)i0 * C, v + (size_t)t * C * T, T, m + ((size_t)t * M + i0) * T,
                     T);
    });
  } else {
  const int mb = (M + row_tiles - 1) / row_tiles;
  blas_single_threaded([&] {
    tbb::parallel_for(0, 16 * row_tiles, [&](int task) {
      const int t = task / row_tiles, i0 = (task % row_tiles) * mb, h = std::min(mb, M - i0);
      if (h <= 0) return;
      cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, h, (int)T, C, 1.f, u + ((size_t)t * M + i0) * C, C,
                  v + (size_t)t * C * T, (int)T, 0.f, m + ((size_t)t * M + i0) * T, (int)T);
    });
  });
  }
  // Output tiles: Y = A^T m A, the odd last row and column dropped.
  const size_t step = (size_t)M * T;
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * M), [&](const tbb::blocked_range<int>& r) {
    float* rows = rows_all + (size_t)4 * row_len * tbb::this_task_arena::current_thread_index();
    for (int bf = r.begin(); bf != r.end(); ++bf) {
      const int b = bf / M, f = bf % M;
      Ftype* plane = output + ((size_t)b * M + f) * s.out_h * s.out_w;
      const float* src = m + (size_t)f * T + (size_t)b * tiles;
      for (int ty = 0; ty < th; ++ty) {
        float* y0 = rows;
        float* y1 = y0 + 2 * tw;
        if (rows16) winograd_output16(src + (size_t)ty * tw, step, tw, y0, y1);
        for (int tx = 0; tx < (rows16 ? 0 : tw); ++tx) {
          const float* q = src + (size_t)ty * tw + tx;
          float a[4][4];
          for (int k = 0; k < 16; ++k) a[k / 4][k % 4] = q[k * step];
          float t0[4], t1[4];
          for (int j = 0; j < 4; ++j) {
            t0[j] = a[0][j] + a[1][j] + a[2][j];
            t1[j] = a[1][j] - a[2][j] - a[3][j];
          }
          y0[2 * tx] = t0[0] + t0[1] + t0[2];
          y0[2 * tx + 1] = t0[1] - t0[2] - t0[3];
          y1[2 * tx] = t1[0] + t1[1] + t1[2];
          y1[2 * tx + 1] = t1[1] - t1[2] - t1[3];
        }
        finish(y0, plane + (size_t)(2 * ty) * s.out_w, s.out_w, f);
        if (2 * ty + 1 < s.out_h) finish(y1, plane + (size_t)(2 * ty + 1) * s.out_w, s.out_w, f);
      }
    }
  });
}
}  // namespace

void conv_im2col(const Ftype* im, int channels, int height, int width, int size, int stride, int pad,
                 int dilation, int out_h, int out_w, Ftype* col) {
  const int rows = channels * size * size;
  tbb::parallel_for(tbb::blocked_range<int>(0, rows), [&](const tbb::blocked_range<int>& r) {
    for (int row = r.begin(); row != r.end(); ++row) {
      const int kx = row % size, ky = (row / size) % size, c = row / size / size;
      const Ftype* plane = im + (size_t)c * height * width;
      Ftype* dst = col + (size_t)row * out_h * out_w;
      for (int y = 0; y < out_h; ++y) {
        const int iy = y * stride - pad + ky * dilation;
        for (int x = 0; x < out_w; ++x) {
          const int ix = x * stride - pad + kx * dilation;
          const bool inside = iy >= 0 && iy < height && ix >= 0 && ix < width;
          dst[y * out_w + x] = inside ? plane[iy * width + ix] : fp_0;
        }
      }
    }
  });
}

void conv_col2im_add(const Ftype* col, int channels, int height, int width, int size, int stride, int pad,
                     int dilation, int out_h, int out_w, Ftype* im) {
  // Each channel gathers its contributions in float and is rounded once when added.
  tbb::parallel_for(tbb::blocked_range<int>(0, channels), [&](const tbb::blocked_range<int>& r) {
    std::vector<float> sum((size_t)height * width);
    for (int c = r.begin(); c != r.end(); ++c) {
      std::fill(sum.begin(), sum.end(), 0.f);
      for (int ky = 0; ky < size; ++ky)
        for (int kx = 0; kx < size; ++kx) {
          const Ftype* src = col + ((size_t)(c * size + ky) * size + kx) * out_h * out_w;
          for (int y = 0; y < out_h; ++y) {
            const int iy = y * stride - pad + ky * dilation;
            if (iy < 0 || iy >= height) continue;
            for (int x = 0; x < out_w; ++x) {
              const int ix = x * stride - pad + kx * dilation;
              if (ix >= 0 && ix < width) sum[(size_t)iy * width + ix] += h2f(src[y * out_w + x]);
            }
          }
        }
      Ftype* plane = im + (size_t)c * height * width;
      for (size_t i = 0; i < sum.size(); ++i) plane[i] = f2h(h2f(plane[i]) + sum[i]);
    }
  });
}

ConvPlan* conv_plan_create(void* handle, const ConvShape& s) {
  HostConvPlan* plan = new HostConvPlan(s);
  if (takes_winograd(s)) {
    plan->wino_packed = packed_products();
    plan->wino_u.resize((size_t)16 * (plan->wino_packed ? packed_rows(s.out_c) : s.out_c) * s.in_c);
    plan->wino_source.reserve((size_t)9 * s.out_c * s.in_c);
  }
  if (s.int8) conv_int8_prepare(plan->int8, s);
  // Only the backward passes use a column matrix; the forward pass gathers its panels into
  // the backend's scratch.
  plan->workspace_bytes = s.train && !reads_image_directly(s) ? col_elements(s) * sizeof(Ftype) : 0;
  return plan;
}

namespace {

// One group per channel: a product per group would have a single row and K = size x size,
// all overhead. Each output row sums its taps in float over zero-bordered float copies of
// the input rows, rounded once by `finish`.
constexpr int kMaxDepthwiseSize = 16;  // kernel sides the register path takes
bool is_depthwise(const ConvShape& s) { return s.groups > 1 && s.groups == s.in_c && s.out_c == s.in_c; }

#if defined(__x86_64__)
bool depthwise_rows16() { return __builtin_cpu_supports("avx512f"); }

// One output row of a unit-stride depthwise layer, 64 outputs at a time summed in four
// registers (a single chain of dependent sums would wait on each addition), the loads
// unmasked but in the last block: the taps in the plain loop's order (kernel rows that fall
// outside the image skipped), each product and each sum rounded on its own (no fused
// multiply-add), so the sums are the plain loop's bit for bit.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC's headers, inlined here
template <bool kMasked>
__attribute__((target("avx512f"))) inline void depthwise_block64(const float* const* rows, const float* const* taps,
                                                                   int nrows, int k, int dilation, int x, int left,
                                                                   float* acc) {
  constexpr int kRound = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
  __mmask16 take[4];
  for (int j = 0; j < 4; ++j) take[j] = (__mmask16)((1u << std::min(16, std::max(0, left - 16 * j))) - 1);
  __m512 sum[4] = {_mm512_setzero_ps(), _mm512_setzero_ps(), _mm512_setzero_ps(), _mm512_setzero_ps()};
  for (int r = 0; r < nrows; ++r)
    for (int kx = 0; kx < k; ++kx) {
      const float* src = rows[r] + x + kx * dilation;
      const __m512 w = _mm512_set1_ps(taps[r][kx]);
#pragma GCC unroll 4
      for (int j = 0; j < 4; ++j) {
        const __m512 v = kMasked ? _mm512_maskz_loadu_ps(take[j], src + 16 * j) : _mm512_loadu_ps(src + 16 * j);
        sum[j] = _mm512_add_round_ps(sum[j], _mm512_mul_round_ps(w, v, kRound), kRound);
      }
    }
#pragma GCC unroll 4
  for (int j = 0; j < 4; ++j) {
    if (kMasked) _mm512_mask_storeu_ps(acc + x + 16 * j, take[j], sum[j]);
    else _mm512_storeu_ps(acc + x + 16 * j, sum[j]);
  }
}

// Narrow rows (out_w <= 16 V): R consecutive output rows whose kernel rows all lie inside the
// image, V vectors each, R x V = 4 independent sums; rows0 is the first input row of the first
// output row, the taps and their order as above.
template <int R, int V>
__attribute__((target("avx512f"))) void depthwise_rows_block(const float* rows0, size_t wp, const float* w, int k,
                                                               int dilation, int out_w, float* acc) {
  constexpr int kRound = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
  __mmask16 take[V];
  for (int v = 0; v < V; ++v) take[v] = (__mmask16)((1u << std::min(16, std::max(0, out_w - 16 * v))) - 1);
  __m512 sum[R][V];
  for (int r = 0; r < R; ++r)
    for (int v = 0; v < V; ++v) sum[r][v] = _mm512_setzero_ps();
  for (int ky = 0; ky < k; ++ky)
    for (int kx = 0; kx < k; ++kx) {
      const __m512 wv = _mm512_set1_ps(w[ky * k + kx]);
      const float* src = rows0 + (size_t)ky * dilation * wp + kx * dilation;
#pragma GCC unroll 4
      for (int r = 0; r < R; ++r)
#pragma GCC unroll 2
        for (int v = 0; v < V; ++v)
          sum[r][v] = _mm512_add_round_ps(
              sum[r][v], _mm512_mul_round_ps(wv, _mm512_maskz_loadu_ps(take[v], src + r * wp + 16 * v), kRound), kRound);
    }
  for (int r = 0; r < R; ++r)
    for (int v = 0; v < V; ++v) _mm512_mask_storeu_ps(acc + (size_t)r * out_w + 16 * v, take[v], sum[r][v]);
}

__attribute__((target("avx512f"))) void depthwise_row16(const float* const* rows, const float* const* taps, int nrows,
                                                          int k, int dilation, int out_w, float* acc) {
  int x = 0;
  for (; x + 64 <= out_w; x += 64) depthwise_block64<false>(rows, taps, nrows, k, dilation, x, 64, acc);
  if (x < out_w) depthwise_block64<true>(rows, taps, nrows, k, dilation, x, out_w - x, acc);
}
#pragma GCC diagnostic pop
#else
bool depthwise_rows16() { return false; }
void depthwise_row16(const float* const*, const float* const*, int, int, int, int, float*) {}
template <int R, int V>
void depthwise_rows_block(const float*, size_t, const float*, int, int, int, float*) {}
#endif

void depthwise_forward(ORVA::Backend* backend, const ConvShape& s, int batch, const Ftype* input,
                       const Ftype* weight, Ftype* output, const OutputStep& finish) {
  const int k = s.size, wp = s.in_w + 2 * s.pad;
  // The plane is widened once, rows with their zero border, and every output row then reads
  // its k rows from it (widening row by row for each output row widened every row k times).
  const size_t per_thread = (size_t)s.in_h * wp + 4 * s.out_w + k * k;
  const int threads = tbb::this_task_arena::max_concurrency();
  float* scratch = static_cast<float*>(backend->scratch(kScratchRows, sizeof(float) * per_thread * threads));
  if (!scratch)
    ORVA_THROW("conv_forward: no host scratch for %d depthwise rows of %d", s.in_h, wp);
  const bool rows16 = s.stride == 1 && k <= kMaxDepthwiseSize && depthwise_rows16();
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * s.in_c), [&](const tbb::blocked_range<int>& r) {
    float* rows = scratch + per_thread * tbb::this_task_arena::current_thread_index();
    float* acc = rows + (size_t)s.in_h * wp;
    float* w = acc + 4 * s.out_w;
    for (int bc = r.begin(); bc != r.end(); ++bc) {
      const int c = bc % s.in_c;
      const Ftype* plane = input + (size_t)bc * s.in_h * s.in_w;
      Ftype* out = output + (size_t)bc * s.out_h * s.out_w;
      widen_strided(weight + (size_t)c * k * k, 1, k * k, w);
      for (int iy = 0; iy < s.in_h; ++iy) {
        float* row = rows + (size_t)iy * wp;
        std::fill(row, row + s.pad, 0.f);
        widen_strided(plane + (size_t)iy * s.in_w, 1, s.in_w, row + s.pad);
        std::fill(row + s.pad + s.in_w, row + wp, 0.f);
      }
      for (int y = 0; y < s.out_h; ++y) {
        // Narrow rows: four or two output rows at once where all their kernel rows are inside.
        const int group = !rows16 || s.out_w > 32 ? 1 : s.out_w > 16 ? 2 : 4;
        if (group > 1 && y - s.pad >= 0 && y + group - 1 - s.pad + (k - 1) * s.dilation < s.in_h) {
          const float* rows0 = rows + (size_t)(y - s.pad) * wp;
          if (group == 4) depthwise_rows_block<4, 1>(rows0, wp, w, k, s.dilation, s.out_w, acc);
          else depthwise_rows_block<2, 2>(rows0, wp, w, k, s.dilation, s.out_w, acc);
          for (int r = 0; r < group; ++r) finish(acc + (size_t)r * s.out_w, out + (size_t)(y + r) * s.out_w, s.out_w, c);
          y += group - 1;
          continue;
        }
        if (rows16) {
          const float* in_rows[kMaxDepthwiseSize];
          const float* tap_rows[kMaxDepthwiseSize];
          int n = 0;
          for (int ky = 0; ky < k; ++ky) {
            const int iy = y - s.pad + ky * s.dilation;
            if (iy < 0 || iy >= s.in_h) continue;
            in_rows[n] = rows + (size_t)iy * wp;
            tap_rows[n++] = w + ky * k;
          }
          depthwise_row16(in_rows, tap_rows, n, k, s.dilation, s.out_w, acc);
          finish(acc, out + (size_t)y * s.out_w, s.out_w, c);
          continue;
        }
        std::fill(acc, acc + s.out_w, 0.f);
        for (int ky = 0; ky < k; ++ky) {
          const int iy = y * s.stride - s.pad + ky * s.dilation;
          if (iy < 0 || iy >= s.in_h) continue;
          const float* row = rows + (size_t)iy * wp;
          for (int kx = 0; kx < k; ++kx) {
            const float wk = w[ky * k + kx];
            const float* src = row + kx * s.dilation;
            if (s.stride == 1)
              for (int x = 0; x < s.out_w; ++x) acc[x] += wk * src[x];
            else
              for (int x = 0; x < s.out_w; ++x) acc[x] += wk * src[(size_t)x * s.stride];
          }
        }
        finish(acc, out + (size_t)y * s.out_w, s.out_w, c);
      }
    }
  });
}

// Unit strides with the packed products: no column panel. Each thread widens the
// image rows of a band of output rows once into the stride's phases (s x s planes per channel;
// phase (px, py) holds the zero-bordered image's columns px, px + s, ... of its rows py,
// py + s, ...), each plane row as wide as an output row plus the phase columns a kernel row
// reaches past it. Row (c, ky, kx) of the column matrix is then one phase plane read at a fixed
// offset, so the product reads its operand from the planes; every output row is computed over
// the plane row's width and the columns past out_w are dropped. A gathered panel converted
// each image value once for every kernel tap that reads it and wrote and read back K floats
// per output column. The planes are laid out for any stride, but double strides (four phases,
// bands of two or three rows within the budget) measured no faster than their panels.
struct PhasePlan {
  bool use = false;
  int s = 1, qmax = 0, wpe = 0, band = 0, bands = 0, rows = 0;
  size_t plane = 0, per_thread = 0;  // floats of one phase plane, of one thread's planes
};

constexpr size_t kBandBytes = 512 * 1024;  // one thread's phase planes, kept in cache
constexpr int kMinBandColumns = 96;        // narrower bands leave the product's blocks half empty

PhasePlan phase_plan(const ConvShape& s, int cpg, bool packed, int threads) {
  PhasePlan p;
  if (!packed || s.size == 1 || s.stride > 1) return p;
  p.s = s.stride;
  p.qmax = (s.size - 1) * s.dilation / s.stride;
  p.wpe = s.out_w + p.qmax;
  const size_t row_bytes = sizeof(float) * p.s * p.s * cpg * p.wpe;
  // At least two bands per thread, so that a pass of one image splits evenly.
  const int even = (s.out_h + 2 * threads - 1) / (2 * threads);
  p.band = std::min(even, (int)(kBandBytes / row_bytes) - p.qmax - 1);
  if (p.band < 1 || p.band * p.wpe < kMinBandColumns) return p;
  p.bands = (s.out_h + p.band - 1) / p.band;
  p.rows = p.band + p.qmax + 1;  // the last one catches the dropped columns' reads
  p.plane = (size_t)p.rows * p.wpe;
  p.per_thread = p.plane * p.s * p.s * cpg;
  p.use = true;
  return p;
}

// Planes of channels [0, cpg) of `im` for output rows from y0 (layout of phase_plan).
void widen_phases(const ConvShape& s, const PhasePlan& p, const Ftype* im, int cpg, int y0, float* planes) {
  for (int c = 0; c < cpg; ++c)
    for (int py = 0; py < p.s; ++py)
      for (int yy = 0; yy < p.rows; ++yy) {
        const int iy = (y0 + yy) * p.s + py - s.pad;
        for (int px = 0; px < p.s; ++px) {
          float* dst = planes + ((size_t)(py * p.s + px) * cpg + c) * p.plane + (size_t)yy * p.wpe;
          if (iy < 0 || iy >= s.in_h) {
            std::fill(dst, dst + p.wpe, 0.f);
            continue;
          }
          // dst[xx] = image column xx * s + px - pad, zero outside the image.
          const int lo = std::min(p.wpe, std::max(0, (s.pad - px + p.s - 1) / p.s));
          const int hi = std::max(lo, std::min(p.wpe, floor_div(s.in_w - 1 + s.pad - px, p.s) + 1));
          std::fill(dst, dst + lo, 0.f);
          if (hi > lo) widen_strided(im + ((size_t)c * s.in_h + iy) * s.in_w + (lo * p.s + px - s.pad), p.s, hi - lo, dst + lo);
          std::fill(dst + hi, dst + p.wpe, 0.f);
        }
      }
}

void phase_forward(ORVA::Backend* backend, const ConvShape& s, const PhasePlan& p, int batch, const Ftype* input,
                   const float* a, size_t group_rows, Ftype* output, const OutputStep& finish) {
  const int cpg = s.in_c / s.groups, fpg = s.out_c / s.groups, k = s.size;
  const int K = cpg * k * k, N = s.out_h * s.out_w;
  const int threads = tbb::this_task_arena::max_concurrency();
  const int tasks = batch * s.groups * p.bands;
  const int row_tiles =
      tasks >= 2 * threads ? 1 : std::max(1, std::min(fpg / kPackRows, (2 * threads + tasks - 1) / tasks));
  const int mb = (int)packed_rows((fpg + row_tiles - 1) / row_tiles);
  const size_t c_tile = (size_t)mb * p.band * p.wpe;
  float* planes_all = static_cast<float*>(backend->scratch(kScratchColumns, sizeof(float) * p.per_thread * threads));
  float* tiles_all = static_cast<float*>(backend->scratch(kScratchTiles, sizeof(float) * c_tile * threads));
  int* off = static_cast<int*>(backend->scratch(kScratchRows, sizeof(int) * K));
  if (!planes_all || !tiles_all || !off)
    ORVA_THROW("conv_forward: no host scratch for %d phase planes of %zu floats", p.s * p.s * cpg, p.plane);
  for (int c = 0; c < cpg; ++c)
    for (int ky = 0; ky < k; ++ky)
      for (int kx = 0; kx < k; ++kx) {
        const int vy = ky * s.dilation, vx = kx * s.dilation;
        const int phase = (vy % p.s) * p.s + vx % p.s;
        off[(c * k + ky) * k + kx] = (int)(((size_t)phase * cpg + c) * p.plane + (size_t)(vy / p.s) * p.wpe + vx / p.s);
      }
  const size_t in_image = (size_t)s.in_c * s.in_h * s.in_w, out_image = (size_t)s.out_c * N;
  tbb::parallel_for(0, tasks * row_tiles, [&](int task) {
    const int slot = tbb::this_task_arena::current_thread_index();
    float* planes = planes_all + p.per_thread * slot;
    float* cp = tiles_all + c_tile * slot;
    const int rt = task % row_tiles, band = task / row_tiles % p.bands, bg = task / row_tiles / p.bands;
    const int b = bg / s.groups, g = bg % s.groups;
    const int i0 = rt * mb, h = std::min(mb, fpg - i0);
    if (h <= 0) return;
    const int y0 = band * p.band, rows = std::min(p.band, s.out_h - y0), w = rows * p.wpe;
    widen_phases(s, p, input + b * in_image + (size_t)g * cpg * s.in_h * s.in_w, cpg, y0, planes);
    packed_product(h, w, K, a + ((size_t)g * group_rows + i0) * K, planes, 0, cp, w, off);
    for (int i = 0; i < h; ++i) {
      const int f = g * fpg + i0 + i;
      Ftype* out = output + b * out_image + (size_t)f * N + (size_t)y0 * s.out_w;
      for (int y = 0; y < rows; ++y) finish(cp + (size_t)i * w + (size_t)y * p.wpe, out + (size_t)y * s.out_w, s.out_w, f);
    }
  });
}

void forward(void* handle, ConvPlan* plan, int batch, const Ftype* input, const Ftype* weight, Ftype* output,
             const OutputStep& finish) {
  const ConvShape& s = plan->shape;
  const int cpg = s.in_c / s.groups, fpg = s.out_c / s.groups;
  const int K = cpg * s.size * s.size, N = s.out_h * s.out_w;
  ORVA::Backend* backend = ORVA::backend_of(handle);
  if (takes_winograd(s))
    return winograd_forward(static_cast<HostConvPlan*>(plan), backend, batch, input, weight, output, finish);
  if (is_depthwise(s)) return depthwise_forward(backend, s, batch, input, weight, output, finish);
  const long long columns = (long long)batch * N;
  const int threads = tbb::this_task_arena::max_concurrency();
  ForwardTiling t = forward_tiling(fpg, columns, K, threads);
  // Packed products: the weights widened straight into row blocks, tiles whole blocks.
  const bool packed = packed_products();
  const size_t group_rows = packed ? packed_rows(fpg) : fpg;
  if (packed) {
    t.mb = (int)packed_rows(t.mb);
    t.row_tiles = (fpg + t.mb - 1) / t.mb;
  }
  const PhasePlan phases = phase_plan(s, cpg, packed, threads);
  const size_t b_floats = phases.use ? 0 : t.shared ? (size_t)K * columns : (size_t)K * t.nb * threads;
  const size_t c_tile = phases.use ? 0 : (size_t)t.mb * t.nb;
  float* a = static_cast<float*>(backend->scratch(kScratchWeights, sizeof(float) * s.groups * group_rows * K));
  float* bm = static_cast<float*>(backend->scratch(kScratchColumns, sizeof(float) * b_floats));
  float* cm = static_cast<float*>(backend->scratch(kScratchTiles, sizeof(float) * c_tile * threads));
  if (!a || (!phases.use && (!bm || !cm)))
    ORVA_THROW("conv_forward: no host scratch for %d filters, %d x %lld columns", s.out_c, K, columns);
  if (packed) {
    const int blocks = (int)(group_rows / kPackRows);
    tbb::parallel_for(0, s.groups * blocks, [&](int gb) {
      const int g = gb / blocks, f0 = (gb % blocks) * kPackRows;
      float* dst = a + ((size_t)g * group_rows + f0) * K;
      float row[64];
      for (int k0 = 0; k0 < K; k0 += 64) {
        const int n = std::min(64, K - k0);
        for (int r = 0; r < kPackRows; ++r) {
          if (f0 + r < fpg) widen_strided(weight + ((size_t)g * fpg + f0 + r) * K + k0, 1, n, row);
          else std::fill(row, row + n, 0.f);
          for (int k = 0; k < n; ++k) dst[(size_t)(k0 + k) * kPackRows + r] = row[k];
        }
      }
    });
  } else {
    tbb::parallel_for(tbb::blocked_range<int>(0, s.out_c, 16), [&](const tbb::blocked_range<int>& r) {
      widen_strided(weight + (size_t)r.begin() * K, 1, (r.end() - r.begin()) * K, a + (size_t)r.begin() * K);
    });
  }
  if (phases.use) return phase_forward(backend, s, phases, batch, input, a, group_rows, output, finish);
  const size_t in_image = (size_t)s.in_c * s.in_h * s.in_w, out_image = (size_t)s.out_c * N;
  auto pack = [&](int g, long long J, int w, float* dst, size_t ld) {
    for_sample_pieces(J, w, N, [&](int b, int j, int at, int n) {
      pack_columns(s, input + b * in_image + (size_t)g * cpg * s.in_h * s.in_w, cpg, j, n, dst + at, ld);
    });
  };
  blas_single_threaded([&] {
    for (int g = 0; g < s.groups; ++g) {
      if (t.shared) {
        const int chunks = (int)std::min<long long>(columns, 4LL * threads);
        tbb::parallel_for(0, chunks, [&](int i) {
          const long long J = columns * i / chunks, end = columns * (i + 1) / chunks;
          pack(g, J, (int)(end - J), bm + J, (size_t)columns);
        });
      }
      tbb::parallel_for(tbb::blocked_range<int>(0, t.panels * t.row_tiles, 1), [&](const tbb::blocked_range<int>& r) {
        const int slot = tbb::this_task_arena::current_thread_index();
        float* cp = cm + c_tile * slot;
        for (int task = r.begin(); task != r.end(); ++task) {
          const long long J = (long long)(task / t.row_tiles) * t.nb;
          const int w = (int)std::min<long long>(t.nb, columns - J);
          const int i0 = (task % t.row_tiles) * t.mb, h = std::min(t.mb, fpg - i0);
          const float* bp = bm + J;
          int ldb = (int)columns;
          if (!t.shared) {
            float* own = bm + (size_t)K * t.nb * slot;
            pack(g, J, w, own, (size_t)w);
            bp = own;
            ldb = w;
          }
          if (packed)
            packed_product(h, w, K, a + ((size_t)g * group_rows + i0) * K, bp, ldb, cp, w);
          else
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, h, w, K, 1.f, a + ((size_t)g * fpg + i0) * K, K, bp,
                        ldb, 0.f, cp, w);
          for_sample_pieces(J, w, N, [&](int b, int j, int at, int n) {
            Ftype* out = output + b * out_image + ((size_t)g * fpg + i0) * N + j;
            for (int i = 0; i < h; ++i) finish(cp + (size_t)i * w + at, out + (size_t)i * N, n, g * fpg + i0 + i);
          });
        }
      });
    }
  });
}

}  // namespace

void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace) {
  forward(handle, plan, batch, input, weight, output, OutputStep());
}

void conv_forward_bias_activate(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* bias,
                                int type, Ftype* output, void* workspace) {
  OutputStep finish;
  finish.bias = bias;
  finish.activate = narrow_bias_activate_fn(type);
  if (!finish.activate)
    ORVA_THROW("conv_forward_bias_activate: unknown activation id %d", type);
  forward(handle, plan, batch, input, weight, output, finish);
}

void conv_backward_filter(void* handle, ConvPlan* plan, Ftype* input, Ftype* delta, Ftype* weight_update,
                          void* workspace) {
  const ConvShape& s = plan->shape;
  const int cpg = s.in_c / s.groups, fpg = s.out_c / s.groups;
  const int K = cpg * s.size * s.size, N = s.out_h * s.out_w;
  Ftype* col = static_cast<Ftype*>(workspace);
  for (int b = 0; b < s.batch; ++b)
    for (int g = 0; g < s.groups; ++g) {
      Ftype* im = input + ((size_t)b * s.in_c + (size_t)g * cpg) * s.in_h * s.in_w;
      Ftype* B = im;
      if (!reads_image_directly(s)) {
        conv_im2col(im, cpg, s.in_h, s.in_w, s.size, s.stride, s.pad, s.dilation, s.out_h, s.out_w, col);
        B = col;
      }
      Ftype* D = delta + ((size_t)b * s.out_c + (size_t)g * fpg) * N;
      blas_gemm(handle, 0, 1, fpg, K, N, 1.f, D, N, B, N, 1.f, weight_update + (size_t)g * fpg * K, K);
    }
}

void conv_backward_data(void* handle, ConvPlan* plan, Ftype* weight, Ftype* delta, Ftype* input_delta,
                        void* workspace) {
  const ConvShape& s = plan->shape;
  const int cpg = s.in_c / s.groups, fpg = s.out_c / s.groups;
  const int K = cpg * s.size * s.size, N = s.out_h * s.out_w;
  Ftype* col = static_cast<Ftype*>(workspace);
  for (int b = 0; b < s.batch; ++b)
    for (int g = 0; g < s.groups; ++g) {
      Ftype* A = weight + (size_t)g * fpg * K;
      Ftype* D = delta + ((size_t)b * s.out_c + (size_t)g * fpg) * N;
      Ftype* im = input_delta + ((size_t)b * s.in_c + (size_t)g * cpg) * s.in_h * s.in_w;
      if (reads_image_directly(s)) {
        blas_gemm(handle, 1, 0, K, N, fpg, 1.f, A, K, D, N, 1.f, im, N);
        continue;
      }
      blas_gemm(handle, 1, 0, K, N, fpg, 1.f, A, K, D, N, 0.f, col, N);
      conv_col2im_add(col, cpg, s.in_h, s.in_w, s.size, s.stride, s.pad, s.dilation, s.out_h, s.out_w, im);
    }
}

void conv_repack_int8(void* handle, ConvPlan* plan, signed char* qweight) {
  conv_int8_repack(static_cast<HostConvPlan*>(plan)->int8, plan->shape, qweight);
}

void conv_forward_int8(void* handle, ConvPlan* plan, int batch, char* qinput, signed char* qweight, float qscale,
                       Ftype* bias, Ftype* output, void* workspace) {
  conv_int8_forward(handle, plan->shape, static_cast<HostConvPlan*>(plan)->int8, batch, qinput, qweight, qscale, bias,
                    output);
}

}  // namespace cpu
