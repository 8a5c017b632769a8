// Tensor primitives against float64 references written here, on every backend present.
#include <cmath>
#include <cstring>
#include <string>

#include "harness.h"
#include "orva/blas.h"

using namespace orva_test;

namespace {

// Data movement is exact: any difference is a wrong index.
constexpr double kExact = 0.0;

double h(const std::vector<Ftype>& v, size_t i) { return half2float_cpu(v[i].__x); }
double round_half(double x) { return half2float_cpu(float2half_cpu((float)x)); }

struct GemmCase {
  int TA, TB, M, N, K, lda, ldb, ldc;
  float alpha, beta;
};

// C is returned whole, padding included: columns past N must keep their values.
void check_gemm(const GemmCase& g) {
  const int a_rows = g.TA ? g.K : g.M, b_rows = g.TB ? g.N : g.K;
  const auto A = random_halves((size_t)a_rows * g.lda, -1, 1);
  const auto B = random_halves((size_t)b_rows * g.ldb, -1, 1);
  const auto C = random_halves((size_t)g.M * g.ldc, -1, 1);
  std::vector<double> ref = to_doubles(C);
  for (int i = 0; i < g.M; ++i)
    for (int j = 0; j < g.N; ++j) {
      double dot = 0;
      for (int k = 0; k < g.K; ++k) {
        const double a = g.TA ? h(A, (size_t)k * g.lda + i) : h(A, (size_t)i * g.lda + k);
        const double b = g.TB ? h(B, (size_t)j * g.ldb + k) : h(B, (size_t)k * g.ldb + j);
        dot += a * b;
      }
      double& c = ref[(size_t)i * g.ldc + j];
      c = g.alpha * dot + g.beta * c;
    }
  const std::string what = "blas_gemm TA=" + std::to_string(g.TA) + " TB=" + std::to_string(g.TB) + " " +
                           std::to_string(g.M) + "x" + std::to_string(g.N) + "x" + std::to_string(g.K);
  // Float accumulation, then one rounding of each result to half.
  check_on_backends(on_tensors({A, B}, C, [&](void* ctx, const std::vector<Ftype*>& t, Ftype* c) {
                      blas_gemm(ctx, g.TA, g.TB, g.M, g.N, g.K, g.alpha, t[0], g.lda, t[1], g.ldb, g.beta, c, g.ldc);
                    }),
                    ref, kHalfRounding, kHalfRounding, what.c_str());
}

}  // namespace

TEST(BlasGemm, TransposesAndLeadingDimensions) {
  // TA=1/TB=0 is the backward-data shape of a convolution; padded leading dimensions catch
  // any place that assumes packed rows.
  check_gemm({0, 0, 7, 9, 5, 5, 9, 9, 1.f, 0.5f});
  check_gemm({1, 0, 6, 11, 8, 6, 11, 11, 1.f, 1.f});
  check_gemm({0, 1, 5, 7, 13, 16, 14, 9, -0.75f, 0.25f});
  check_gemm({1, 1, 9, 6, 4, 12, 7, 10, 2.f, -1.f});
  check_gemm({1, 0, 4, 10, 3, 7, 13, 12, 1.f, 0.5f});
  check_gemm({0, 0, 3, 4, 0, 1, 4, 4, 1.f, 0.5f});  // K = 0 only scales C
}

TEST(BlasGemm, TiledShapes) {
  // The host product tiles C: few column panels share one widened B and split the rows
  // (first two cases), many panels each widen their own slice of B (last two), with ragged
  // last tiles.
  check_gemm({0, 0, 70, 1100, 300, 300, 1100, 1100, 1.f, 0.f});
  check_gemm({1, 0, 70, 600, 200, 75, 600, 600, 1.f, 0.5f});
  check_gemm({0, 1, 17, 4000, 150, 150, 150, 4003, 0.5f, 1.f});
  check_gemm({0, 0, 8, 4001, 300, 300, 4005, 4001, 1.f, 0.f});
}

TEST(BlasGemm, ZeroBetaNeverReadsC) {
  const int M = 5, N = 6, K = 4;
  const auto A = random_halves(M * K, -1, 1), B = random_halves(K * N, -1, 1);
  std::vector<double> ref(M * N, 0.0);
  for (int i = 0; i < M; ++i)
    for (int j = 0; j < N; ++j)
      for (int k = 0; k < K; ++k) ref[i * N + j] += h(A, i * K + k) * h(B, k * N + j);
  check_on_backends(on_tensors({A, B}, (size_t)M * N,  // C stays poisoned with NaN
                               [&](void* ctx, const std::vector<Ftype*>& t, Ftype* c) {
                                 blas_gemm(ctx, 0, 0, M, N, K, 1.f, t[0], K, t[1], N, 0.f, c, N);
                               }),
                    ref, kHalfRounding, kHalfRounding, "blas_gemm with BETA = 0 over a NaN C");
}

TEST(BlasIm2col, MatchesWindowsAndItsAdjoint) {
  struct Shape { int c, h, w, k, s, p; };
  for (const Shape sh : {Shape{3, 9, 7, 3, 2, 1}, Shape{2, 5, 6, 1, 1, 0}, Shape{2, 6, 5, 5, 1, 2}}) {
    const int hc = (sh.h + 2 * sh.p - sh.k) / sh.s + 1, wc = (sh.w + 2 * sh.p - sh.k) / sh.s + 1;
    const size_t cols = (size_t)sh.c * sh.k * sh.k * hc * wc, pixels = (size_t)sh.c * sh.h * sh.w;
    const auto im = random_halves(pixels, -1, 1), col = random_halves(cols, -1, 1);
    std::vector<double> col_ref(cols), im_ref = to_doubles(im);
    for (int c = 0; c < sh.c; ++c)
      for (int ky = 0; ky < sh.k; ++ky)
        for (int kx = 0; kx < sh.k; ++kx)
          for (int y = 0; y < hc; ++y)
            for (int x = 0; x < wc; ++x) {
              const int iy = y * sh.s - sh.p + ky, ix = x * sh.s - sh.p + kx;
              const size_t ci = (((size_t)(c * sh.k + ky) * sh.k + kx) * hc + y) * wc + x;
              if (iy < 0 || iy >= sh.h || ix < 0 || ix >= sh.w) {
                col_ref[ci] = 0;
                continue;
              }
              const size_t ii = ((size_t)c * sh.h + iy) * sh.w + ix;
              col_ref[ci] = h(im, ii);
              im_ref[ii] += h(col, ci);  // the adjoint gathers what the window took
            }
    check_on_backends(on_tensors({im}, cols, [&](void* ctx, const std::vector<Ftype*>& t, Ftype* out) {
                        blas_im2col(ctx, t[0], sh.c, sh.h, sh.w, sh.k, sh.s, sh.p, out);
                      }),
                      col_ref, kExact, kExact, "blas_im2col");
    check_on_backends(on_tensors({col}, im, [&](void* ctx, const std::vector<Ftype*>& t, Ftype* out) {
                        blas_col2im(ctx, t[0], sh.c, sh.h, sh.w, sh.k, sh.s, sh.p, out);
                      }),
                      im_ref, kHalfRounding, kHalfRounding, "blas_col2im");  // float sum, one rounding
  }
}

// An operation in place on a copy of x.
template <typename Op>
BackendOp in_place(const std::vector<Ftype>& x, Op op) {
  return on_tensors({}, x, [op](void* c, const std::vector<Ftype*>&, Ftype* t) { op(c, t); });
}

TEST(BlasElementwise, HalfArithmeticPerElement) {
  const int N = 3001;  // several blocks and a ragged tail of the eight-wide host loops
  const auto x = random_halves(N, -4, 4), y = random_halves(N, -4, 4);
  const double a = round_half(0.37), b = round_half(-1.3);
  std::vector<double> fill(N, round_half(-2.71)), scale(N), scale_add(N), axpy(N);
  for (int i = 0; i < N; ++i) {
    scale[i] = h(x, i) * a;
    scale_add[i] = h(x, i) * 0.37 + 0.5;
    axpy[i] = h(y, i) + b * h(x, i);
  }
  check_on_backends(in_place(x, [&](void* c, Ftype* t) { blas_fill(c, N, -2.71f, t); }), fill, kExact, kExact,
                    "blas_fill");
  check_on_backends(in_place(x, [&](void* c, Ftype* t) { blas_scale(c, N, 0.37f, t); }), scale, kHalfRounding,
                    kExact, "blas_scale");
  // A host without FMA hardware forms the fused product in double: equal except on rare ties.
  check_on_backends(in_place(x, [&](void* c, Ftype* t) { blas_scale_add(c, N, 0.37f, 0.5f, t); }), scale_add,
                    kHalfRounding, kHalfRounding, "blas_scale_add");
  check_on_backends(on_tensors({x}, y, [&](void* c, const std::vector<Ftype*>& t, Ftype* o) { blas_axpy(c, N, -1.3f, t[0], o); }),
                    axpy, kHalfChain, kExact, "blas_axpy");
  check_on_backends(on_tensors({x}, (size_t)N, [&](void* c, const std::vector<Ftype*>& t, Ftype* o) { blas_copy(c, N, t[0], o); }),
                    to_doubles(x), kExact, kExact, "blas_copy");
}

TEST(BlasElementwise, ConstrainClampsAndReplacesNaN) {
  const std::vector<Ftype> x = to_halves(std::vector<float>{3.f, -3.f, 0.5f, -0.5f, 1.f, NAN, INFINITY, -INFINITY});
  const std::vector<double> ref{1, -1, 0.5, -0.5, 1, 1, 1, -1};
  check_on_backends(in_place(x, [](void* c, Ftype* t) { blas_constrain(c, 8, 1.f, t); }), ref, kExact, kExact,
                    "blas_constrain");
}

TEST(BlasElementwise, SumOfHalvesAsFloat) {
  for (int N : {1, 511, 5000}) {
    const auto x = random_halves(N, 0.f, 2.f);
    double ref = 0;
    for (int i = 0; i < N; ++i) ref += h(x, i);
    float host_sum = 0;
    for (int gpu : test_backends()) {
      CudaHandle ctx{};
      create_handle(&ctx, gpu);
      float got;
      {
        Tensor t(&ctx, x);
        got = blas_sum(&ctx, N, t);
      }
      destroy_handle(&ctx);
      // Float accumulation: partial sums of at most ten terms, then a nine-level tree.
      EXPECT_NEAR(got, ref, 1e-5 * ref) << "N = " << N;
      if (gpu < 0) {
        host_sum = got;
      } else {
        EXPECT_EQ(got, host_sum) << "fixed reduction order on both backends, N = " << N;
        count_cuda_comparison();
      }
    }
  }
}

namespace {
// Shape of the per-channel tests: spatial past one reduction block, with a ragged tail.
constexpr int kBatch = 2, kFilters = 3, kSpatial = 1300;
constexpr size_t kCount = (size_t)kBatch * kFilters * kSpatial;
int filter_of(size_t i) { return (int)(i / kSpatial % kFilters); }
}  // namespace

TEST(BlasChannel, BiasAndScalePerFilter) {
  struct Shape {
    int batch, filters, spatial;
  };
  // The test shape, and a connected layer's: one element per filter, more filters than a
  // grid dimension other than x can count.
  for (const Shape sh : {Shape{kBatch, kFilters, kSpatial}, Shape{2, 70000, 1}}) {
    const size_t count = (size_t)sh.batch * sh.filters * sh.spatial;
    const auto x = random_halves(count, -2, 2), bias = random_halves(sh.filters, -1, 1),
               scale = random_halves(sh.filters, 0.5f, 2.f);
    std::vector<double> add(count), mul(count), both(count);
    for (size_t i = 0; i < count; ++i) {
      const size_t f = i / sh.spatial % sh.filters;
      add[i] = h(x, i) + h(bias, f);
      mul[i] = h(x, i) * h(scale, f);
      both[i] = h(x, i) * h(scale, f) + h(bias, f);
    }
    using P = const std::vector<Ftype*>&;
    const std::string n = " " + std::to_string(sh.filters) + " filters";
    check_on_backends(on_tensors({bias}, x, [sh](void* c, P p, Ftype* t) { blas_add_bias(c, t, p[0], sh.batch, sh.filters, sh.spatial); }),
                      add, kHalfRounding, kExact, ("blas_add_bias" + n).c_str());
    check_on_backends(on_tensors({scale}, x, [sh](void* c, P p, Ftype* t) { blas_scale_bias(c, t, p[0], sh.batch, sh.filters, sh.spatial); }),
                      mul, kHalfRounding, kExact, ("blas_scale_bias" + n).c_str());
    check_on_backends(on_tensors({scale, bias}, x, [sh](void* c, P p, Ftype* t) { blas_scale_add_bias(c, t, p[0], p[1], sh.batch, sh.filters, sh.spatial); }),
                      both, kHalfChain, kExact, ("blas_scale_add_bias" + n).c_str());
  }
}

TEST(BlasChannel, ReductionsPerFilter) {
  // Positive terms keep the half sums free of cancellation, so the relative error measures
  // the accumulation, not the data.
  const auto x = random_halves(kCount, 0.5f, 1.5f), delta = random_halves(kCount, 0.1f, 1.f);
  const auto mean = to_halves(std::vector<float>{0.2f, 0.3f, 0.1f}), var = random_halves(kFilters, 0.5f, 2.f);
  const auto start = random_halves(kFilters, -1, 1);
  std::vector<double> bias_sum(kFilters), scale_sum(kFilters), x_sum(kFilters), sq_sum(kFilters), dx_sum(kFilters);
  for (size_t i = 0; i < kCount; ++i) {
    const int f = filter_of(i);
    bias_sum[f] += h(delta, i);
    scale_sum[f] += h(delta, i) * h(x, i);
    x_sum[f] += h(x, i);
    sq_sum[f] += (h(x, i) - h(mean, f)) * (h(x, i) - h(mean, f));
    dx_sum[f] += h(delta, i) * (h(x, i) - h(mean, f));
  }
  std::vector<double> bias_ref(kFilters), scale_ref(kFilters), mean_ref(kFilters), var_ref(kFilters),
      mean_delta_ref(kFilters), var_delta_ref(kFilters);
  for (int f = 0; f < kFilters; ++f) {
    bias_ref[f] = h(start, f) + bias_sum[f];
    scale_ref[f] = h(start, f) + scale_sum[f];
    mean_ref[f] = x_sum[f] / (kBatch * kSpatial);
    var_ref[f] = sq_sum[f] / (kBatch * kSpatial - 1);  // unbiased on purpose
    mean_delta_ref[f] = bias_sum[f] * (-1 / std::sqrt(h(var, f) + 0.00001));
    var_delta_ref[f] = dx_sum[f] * -0.5 * std::pow(h(var, f) + 0.00001, -1.5);
  }
  auto reduce = [&](auto op) { return on_tensors({x, delta, mean, var}, start, op); };
  using T = const std::vector<Ftype*>&;
  // Reductions accumulate thousands of terms in half; the CUDA block order is the host's.
  // Inputs: x, delta, mean, var.
  check_on_backends(reduce([](void* c, T t, Ftype* o) { blas_backward_bias(c, o, t[1], kBatch, kFilters, kSpatial); }),
                    bias_ref, kHalfAccumulate, kExact, "blas_backward_bias");
  check_on_backends(reduce([](void* c, T t, Ftype* o) { blas_backward_scale(c, t[0], t[1], kBatch, kFilters, kSpatial, o); }),
                    scale_ref, kHalfAccumulate, kExact, "blas_backward_scale");
  check_on_backends(reduce([](void* c, T t, Ftype* o) { blas_mean(c, t[0], kBatch, kFilters, kSpatial, o); }),
                    mean_ref, kHalfAccumulate, kExact, "blas_mean");
  check_on_backends(reduce([](void* c, T t, Ftype* o) { blas_variance(c, t[0], t[2], kBatch, kFilters, kSpatial, o); }),
                    var_ref, kHalfAccumulate, kExact, "blas_variance");
  check_on_backends(reduce([](void* c, T t, Ftype* o) { blas_mean_delta(c, t[1], t[3], kBatch, kFilters, kSpatial, o); }),
                    mean_delta_ref, kHalfAccumulate, kHalfRounding, "blas_mean_delta");
  check_on_backends(reduce([](void* c, T t, Ftype* o) { blas_variance_delta(c, t[0], t[1], t[2], t[3], kBatch, kFilters, kSpatial, o); }),
                    var_delta_ref, kHalfAccumulate, kHalfRounding, "blas_variance_delta");
}

TEST(BlasChannel, NormalizeAndItsGradient) {
  const auto x = random_halves(kCount, -2, 2), delta = random_halves(kCount, -1, 1);
  const auto mean = random_halves(kFilters, -0.5f, 0.5f), var = random_halves(kFilters, 0.5f, 2.f);
  const auto mean_delta = random_halves(kFilters, -50, 50), var_delta = random_halves(kFilters, -50, 50);
  std::vector<double> norm(kCount), grad(kCount);
  const double count = (double)kBatch * kSpatial;
  for (size_t i = 0; i < kCount; ++i) {
    const int f = filter_of(i);
    norm[i] = round_half(h(x, i) - h(mean, f)) / std::sqrt(h(var, f) + 0.00001);  // the subtraction is in half
    grad[i] = h(delta, i) / std::sqrt(h(var, f) + 0.00001) + h(var_delta, f) * 2 * (h(x, i) - h(mean, f)) / count +
              h(mean_delta, f) / count;
  }
  using P = const std::vector<Ftype*>&;
  check_on_backends(on_tensors({mean, var}, x, [](void* c, P p, Ftype* t) { blas_normalize(c, t, p[0], p[1], kBatch, kFilters, kSpatial); }),
                    norm, kHalfRounding, kHalfRounding, "blas_normalize");
  check_on_backends(on_tensors({x, mean, var, mean_delta, var_delta}, delta,
                               [](void* c, P p, Ftype* t) { blas_normalize_delta(c, p[0], p[1], p[2], p[3], p[4], kBatch, kFilters, kSpatial, t); }),
                    grad, kHalfRounding, kHalfRounding, "blas_normalize_delta");
}

// Reorg and shortcut are checked through their layers (route_test, resample_test).
TEST(BlasLayout, FlattenTransposeBothWays) {
  const int batch = 2, spatial = 35, layers = 6;
  const auto y = random_halves((size_t)spatial * layers * batch, -1, 1);
  std::vector<double> flat(y.size());
  for (int b = 0; b < batch; ++b)
    for (int l = 0; l < layers; ++l)
      for (int s = 0; s < spatial; ++s) flat[(b * spatial + s) * layers + l] = h(y, (b * layers + l) * spatial + s);
  auto flatten = [&](const std::vector<Ftype>& in_values, int forward) {
    return on_tensors({in_values}, in_values.size(), [=](void* c, const std::vector<Ftype*>& t, Ftype* o) {
      blas_flatten(c, t[0], spatial, layers, batch, forward, o);
    });
  };
  check_on_backends(flatten(y, 1), flat, kExact, kExact, "blas_flatten forward");
  check_on_backends(flatten(to_halves(flat), 0), to_doubles(y), kExact, kExact, "blas_flatten backward");
}

namespace {
// Softmax of n values at base + k * stride, written into ref.
void softmax_reference(const std::vector<Ftype>& in, size_t base, int n, int stride, double temp,
                       std::vector<double>& ref) {
  double largest = -INFINITY, sum = 0;
  for (int k = 0; k < n; ++k) largest = std::max(largest, h(in, base + (size_t)k * stride));
  for (int k = 0; k < n; ++k) sum += std::exp((h(in, base + (size_t)k * stride) - largest) / temp);
  for (int k = 0; k < n; ++k) ref[base + (size_t)k * stride] = std::exp((h(in, base + (size_t)k * stride) - largest) / temp) / sum;
}
}  // namespace

TEST(BlasSoftmax, StridedMappedAndRows) {
  // The region head's shape: classes spaced wh apart, wh groups per anchor and item; entries
  // outside the class block must stay as they were.
  const int classes = 7, wh = 12, anchors = 2, batch = 2, per_anchor = (classes + 5) * wh;
  const int total = per_anchor * anchors * batch;
  const auto in = random_halves(total, -6, 6), before = random_halves(total, -1, 1);
  std::vector<double> strided = to_doubles(before);
  for (int item = 0; item < anchors * batch; ++item)
    for (int g = 0; g < wh; ++g) softmax_reference(in, (size_t)item * per_anchor + 5 * wh + g, classes, wh, 2.0, strided);
  using P = const std::vector<Ftype*>&;
  check_on_backends(on_tensors({in}, before, [&](void* c, P i, Ftype* o) {
                      blas_softmax(c, i[0] + 5 * wh, classes, anchors * batch, per_anchor, wh, 1, wh, 2.f, o + 5 * wh);
                    }),
                    strided, kHalfRounding, kHalfRounding, "strided blas_softmax");

  const std::vector<int> gmap{10, 20, 1};
  const int inputs = 31;
  const auto v = random_halves(inputs * batch, -8, 8);
  std::vector<double> mapped(v.size());
  for (int b = 0; b < batch; ++b)
    for (size_t g = 0, off = 0; g < gmap.size(); off += gmap[g++]) softmax_reference(v, b * inputs + off, gmap[g], 1, 0.5, mapped);
  check_on_backends(on_tensors({v}, v.size(), [&](void* c, P i, Ftype* o) {
                      Buffer<int> map(c, gmap);
                      blas_softmax(c, i[0], batch, inputs, (int)gmap.size(), map, 0.5f, o);
                    }),
                    mapped, kHalfRounding, kHalfRounding, "mapped blas_softmax");

  const int rows = 5, cols = 40;
  const auto m = random_halves(rows * cols, -10, 10);
  std::vector<double> rowwise(m.size());
  for (int r = 0; r < rows; ++r) softmax_reference(m, r * cols, cols, 1, 1.0, rowwise);
  check_on_backends(on_tensors({m}, m.size(), [&](void* c, P i, Ftype* o) { blas_softmax2d(c, i[0], rows, cols, o); }),
                    rowwise, kHalfRounding, kHalfRounding, "blas_softmax2d");
}

TEST(BlasSoftmax, BackwardThroughTheOutput) {
  const int rows = 4, cols = 30;
  // A genuine softmax output, so the gradient has its usual scale.
  const auto logits = random_halves(rows * cols, -3, 3);
  std::vector<double> probs(logits.size());
  for (int r = 0; r < rows; ++r) softmax_reference(logits, r * cols, cols, 1, 1.0, probs);
  const auto y = to_halves(probs), dy = random_halves(y.size(), -1, 1);
  std::vector<double> grad(y.size()), grad_flat(cols);
  for (int r = 0; r < rows; ++r) {
    double dot = 0;
    for (int j = 0; j < cols; ++j) dot += h(y, r * cols + j) * h(dy, r * cols + j);
    for (int j = 0; j < cols; ++j) grad[r * cols + j] = h(y, r * cols + j) * (h(dy, r * cols + j) - dot);
    if (r == 0) std::copy(grad.begin(), grad.begin() + cols, grad_flat.begin());
  }
  using P = const std::vector<Ftype*>&;
  check_on_backends(on_tensors({y, dy}, (size_t)cols, [&](void* c, P t, Ftype* o) { blas_softmax_backward(c, t[0], t[1], cols, o); }),
                    grad_flat, kHalfRounding, kHalfRounding, "blas_softmax_backward");
  check_on_backends(on_tensors({y, dy}, y.size(), [&](void* c, P t, Ftype* o) { blas_softmax2d_backward(c, t[0], t[1], rows, cols, o); }),
                    grad, kHalfRounding, kHalfRounding, "blas_softmax2d_backward");
}

class BlasArguments : public OnEachBackend {};
ORVA_ON_EACH_BACKEND(BlasArguments);

TEST_P(BlasArguments, BadShapesThrowAndTouchNothing) {
  Tensor a(handle(), 64), b(handle(), 64), out(handle(), 64);
  auto refused = [&](auto call, const char* fn, const char* key) {
    try {
      call();
      ADD_FAILURE() << fn << " accepted " << key;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(fn), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(key), std::string::npos) << e.what();
    }
    const auto after = out.download();
    for (const Ftype& v : after) ASSERT_EQ(v.__x, 0x7E00) << fn << " wrote despite " << key;
  };
  refused([&] { blas_gemm(handle(), 0, 0, 4, 4, 4, 1, a, 3, b, 4, 0, out, 4); }, "blas_gemm", "lda");
  refused([&] { blas_gemm(handle(), 0, 1, 4, 4, 4, 1, a, 4, b, 3, 0, out, 4); }, "blas_gemm", "ldb");
  refused([&] { blas_reorg(handle(), a, 2, 2, 6, 1, 2, 1, out); }, "blas_reorg", "c = 6");
  refused([&] { blas_shortcut(handle(), 1, 4, 2, 1, a, 2, 2, 1, 1, 1, out); }, "blas_shortcut", "4 x 2");
  refused([&] { blas_softmax(handle(), a, 4, 1, 4, 1, 4, 1, 0.f, out); }, "blas_softmax", "temperature");
  refused([&] { blas_fill(handle(), -1, 1, out); }, "blas_fill", "N = -1");
  refused([&] { blas_im2col(handle(), a, 1, 2, 2, 5, 1, 0, out); }, "blas_im2col", "ksize = 5");
}
