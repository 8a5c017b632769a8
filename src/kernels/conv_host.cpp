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
template <int V>
__attribute__((target("avx512f"))) void packed_block(int K, const float* a, const float* b, size_t ldb, float* c,
                                                     size_t ldc, int rows, __mmask16 last) {
  __m512 acc[kPackRows][V];
  for (int r = 0; r < kPackRows; ++r)
    for (int j = 0; j < V; ++j) acc[r][j] = _mm512_setzero_ps();
  for (int k = 0; k < K; ++k, a += kPackRows, b += ldb) {
    __m512 bv[V];
#pragma GCC unroll 3
    for (int j = 0; j < V; ++j) bv[j] = j + 1 < V ? _mm512_loadu_ps(b + 16 * j) : _mm512_maskz_loadu_ps(last, b + 16 * j);
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

// C (M x N, ldc) = A (M x K, packed) B (K x N, ldb). Column blocks keep B's part in cache
// while every row block passes over it.
void packed_product(int M, int N, int K, const float* ap, const float* b, size_t ldb, float* c, size_t ldc) {
  const int nc = std::max(48, (int)(256 * 1024 / (sizeof(float) * std::max(K, 1))) / 48 * 48);
  for (int jc = 0; jc < N; jc += nc)
    for (int i = 0; i < M; i += kPackRows) {
      const float* a = ap + (size_t)i * K;
      const int rows = std::min(kPackRows, M - i);
      for (int j = jc, end = std::min(N, jc + nc); j < end; j += 48) {
        const int n = std::min(48, end - j);
        const __mmask16 last = (__mmask16)((1u << ((n - 1) % 16 + 1)) - 1);
        float* cj = c + (size_t)i * ldc + j;
        if (n > 32) packed_block<3>(K, a, b + j, ldb, cj, ldc, rows, last);
        else if (n > 16) packed_block<2>(K, a, b + j, ldb, cj, ldc, rows, last);
        else packed_block<1>(K, a, b + j, ldb, cj, ldc, rows, last);
      }
    }
}
#else
bool packed_products() { return false; }
void packed_product(int, int, int, const float*, const float*, size_t, float*, size_t) {}
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
        for (int tx = 0; tx < tw; ++tx) {
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
bool is_depthwise(const ConvShape& s) { return s.groups > 1 && s.groups == s.in_c && s.out_c == s.in_c; }

void depthwise_forward(ORVA::Backend* backend, const ConvShape& s, int batch, const Ftype* input,
                       const Ftype* weight, Ftype* output, const OutputStep& finish) {
  const int k = s.size, wp = s.in_w + 2 * s.pad;
  // The plane is widened once, rows with their zero border, and every output row then reads
  // its k rows from it (widening row by row for each output row widened every row k times).
  const size_t per_thread = (size_t)s.in_h * wp + s.out_w + k * k;
  const int threads = tbb::this_task_arena::max_concurrency();
  float* scratch = static_cast<float*>(backend->scratch(kScratchRows, sizeof(float) * per_thread * threads));
  if (!scratch)
    ORVA_THROW("conv_forward: no host scratch for %d depthwise rows of %d", s.in_h, wp);
  tbb::parallel_for(tbb::blocked_range<int>(0, batch * s.in_c), [&](const tbb::blocked_range<int>& r) {
    float* rows = scratch + per_thread * tbb::this_task_arena::current_thread_index();
    float* acc = rows + (size_t)s.in_h * wp;
    float* w = acc + s.out_w;
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
  const size_t b_floats = t.shared ? (size_t)K * columns : (size_t)K * t.nb * threads;
  const size_t c_tile = (size_t)t.mb * t.nb;
  float* a = static_cast<float*>(backend->scratch(kScratchWeights, sizeof(float) * s.groups * group_rows * K));
  float* bm = static_cast<float*>(backend->scratch(kScratchColumns, sizeof(float) * b_floats));
  float* cm = static_cast<float*>(backend->scratch(kScratchTiles, sizeof(float) * c_tile * threads));
  if (!a || !bm || !cm)
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
