// Host twins of the pooling operations. Half comparisons and conversions are exact in float,
// so the maximum is taken on floats; every half sum is rounded after each term in the
// device's order, and each gradient is summed in float and added to the previous delta with
// one rounding, as the device does.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "half_math.h"
#include "pool_kernel.h"

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

}  // namespace

void max_forward(void* handle, int batch, int in_h, int in_w, int in_c, int out_h, int out_w, int size, int stride,
                 int pad, const Ftype* input, Ftype* output, int* indexes) {
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
      for (int j = 0; j < out_w; ++j) {
        const float a = h2f(r0[2 * j]), b = h2f(r0[2 * j + 1]), c = h2f(r1[2 * j]), d = h2f(r1[2 * j + 1]);
        float best = minus_inf;
        int at = -1;
        if (a > best) best = a, at = 0;
        if (b > best) best = b, at = 1;
        if (c > best) best = c, at = in_w;
        if (d > best) best = d, at = in_w + 1;
        output[o + j] = at < 0 ? kMinusInf : (at == 0 ? r0[2 * j] : at == 1 ? r0[2 * j + 1] : at == in_w ? r1[2 * j] : r1[2 * j + 1]);
        indexes[o + j] = at < 0 ? -1 : (int)(plane + (size_t)y0 * in_w + 2 * j + at);
      }
      return;
    }
    for (int j = 0; j < out_w; ++j) {
      const int x0 = j * stride - pad;
      const int nx0 = std::max(0, -x0), nx1 = std::min(size, in_w - x0);
      float best = minus_inf;
      int at = -1;
      for (int n = ny0; n < ny1; ++n) {
        const size_t row = plane + (size_t)(y0 + n) * in_w;
        for (int m = nx0; m < nx1; ++m) {
          const float v = h2f(input[row + x0 + m]);
          if (v > best) {
            best = v;
            at = (int)(row + x0 + m);
          }
        }
      }
      output[o + j] = at < 0 ? kMinusInf : input[at];
      indexes[o + j] = at;
    }
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
    for (int j = 0; j < out_w; ++j) {
      const int x0 = j * stride - pad;
      const int nx0 = std::max(0, -x0), nx1 = std::min(size, in_w - x0);
      _half sum = fp_0;
      for (int n = ny0; n < ny1; ++n)
        for (int m = nx0; m < nx1; ++m) sum = hadd(sum, input[plane + (size_t)(y0 + n) * in_w + x0 + m]);
      output[((size_t)k * out_h + i) * out_w + j] = f2h(h2f(sum) / area);
    }
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
