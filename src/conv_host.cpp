// Host convolution: dilated im2col into the network workspace, then one matrix product per
// sample and group through blas_gemm (float accumulation, one rounding per output element,
// like the device). The 8-bit pass accumulates exact integer products as the device does.
#include <tbb/parallel_for.h>

#include <cstdint>
#include <vector>

#include "backend.h"
#include "conv_kernel.h"
#include "half_math.h"
#include "orva/blas.h"

namespace cpu {
namespace {

// A 1x1 kernel with unit stride and no border reads the image itself as its column matrix.
bool reads_image_directly(const ConvShape& s) {
  return s.size == 1 && s.stride == 1 && s.pad == 0 && s.dilation == 1;
}

size_t col_elements(const ConvShape& s) {
  return (size_t)(s.in_c / s.groups) * s.size * s.size * s.out_h * s.out_w;
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
  ConvPlan* plan = new ConvPlan(s);
  const bool direct = reads_image_directly(s);
  size_t bytes = direct ? 0 : col_elements(s) * sizeof(Ftype);
  // The data gradient of a 1x1 kernel still needs a column buffer unless it reads directly.
  if (s.train && !direct) bytes = std::max(bytes, col_elements(s) * sizeof(Ftype));
  plan->workspace_bytes = bytes;
  return plan;
}

void conv_forward(void* handle, ConvPlan* plan, int batch, Ftype* input, Ftype* weight, Ftype* output,
                  void* workspace) {
  const ConvShape& s = plan->shape;
  const int cpg = s.in_c / s.groups, fpg = s.out_c / s.groups;
  const int K = cpg * s.size * s.size, N = s.out_h * s.out_w;
  Ftype* col = static_cast<Ftype*>(workspace);
  for (int b = 0; b < batch; ++b)
    for (int g = 0; g < s.groups; ++g) {
      Ftype* im = input + ((size_t)b * s.in_c + (size_t)g * cpg) * s.in_h * s.in_w;
      Ftype* B = im;
      if (!reads_image_directly(s)) {
        conv_im2col(im, cpg, s.in_h, s.in_w, s.size, s.stride, s.pad, s.dilation, s.out_h, s.out_w, col);
        B = col;
      }
      Ftype* A = weight + (size_t)g * fpg * K;
      Ftype* C = output + ((size_t)b * s.out_c + (size_t)g * fpg) * N;
      blas_gemm(handle, 0, 0, fpg, N, K, 1.f, A, K, B, N, 0.f, C, N);
    }
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

// The host reads the plain filter layout; only the device packs four channels together.
void conv_repack_int8(void* handle, ConvPlan* plan, signed char* qweight) {}

void conv_forward_int8(void* handle, ConvPlan* plan, int batch, char* qinput, signed char* qweight, float qscale,
                       Ftype* bias, Ftype* output, void* workspace) {
  const ConvShape& s = plan->shape;
  const int cpg = s.in_c / s.groups, fpg = s.out_c / s.groups;
  const int K = cpg * s.size * s.size, N = s.out_h * s.out_w;
  const size_t inputs = (size_t)s.in_c * s.in_h * s.in_w;
  const unsigned char* plain = reinterpret_cast<unsigned char*>(qinput) + inputs * s.batch;
  ORVA::Backend* backend = ORVA::backend_of(handle);
  int32_t* col = static_cast<int32_t*>(backend->scratch(0, (size_t)K * N * sizeof(int32_t)));
  const bool is_unsigned = s.int8 > 0;
  for (int b = 0; b < batch; ++b)
    for (int g = 0; g < s.groups; ++g) {
      const unsigned char* im = plain + ((size_t)b * s.in_c + (size_t)g * cpg) * s.in_h * s.in_w;
      tbb::parallel_for(tbb::blocked_range<int>(0, K), [&](const tbb::blocked_range<int>& r) {
        for (int row = r.begin(); row != r.end(); ++row) {
          const int kx = row % s.size, ky = (row / s.size) % s.size, c = row / s.size / s.size;
          const unsigned char* plane = im + (size_t)c * s.in_h * s.in_w;
          int32_t* dst = col + (size_t)row * N;
          for (int y = 0; y < s.out_h; ++y) {
            const int iy = y * s.stride - s.pad + ky * s.dilation;
            for (int x = 0; x < s.out_w; ++x) {
              const int ix = x * s.stride - s.pad + kx * s.dilation;
              int32_t v = 0;
              if (iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w) {
                const unsigned char byte = plane[iy * s.in_w + ix];
                v = is_unsigned ? (int32_t)byte : (int32_t)(signed char)byte;
              }
              dst[y * s.out_w + x] = v;
            }
          }
        }
      });
      tbb::parallel_for(tbb::blocked_range<int>(0, fpg), [&](const tbb::blocked_range<int>& r) {
        std::vector<int32_t> acc(N);
        for (int fl = r.begin(); fl != r.end(); ++fl) {
          const int f = g * fpg + fl;
          const signed char* w = qweight + (size_t)f * K;
          std::fill(acc.begin(), acc.end(), 0);
          for (int k = 0; k < K; ++k) {
            const int32_t wk = w[k];
            if (!wk) continue;
            const int32_t* src = col + (size_t)k * N;
            for (int p = 0; p < N; ++p) acc[p] += wk * src[p];
          }
          const float bf = h2f(bias[f]);
          Ftype* out = output + ((size_t)b * s.out_c + f) * N;
          for (int p = 0; p < N; ++p) out[p] = f2h(qscale * (float)acc[p] + bf);
        }
      });
    }
}

void conv_release_descriptors(void* handle, ORVA::Layer* l) {}

}  // namespace cpu
