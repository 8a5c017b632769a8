// Host 8-bit convolution. The integer sums are exact, so both paths below and the device give
// the same sums, and the same float steps after them: qscale * sum, + bias, one rounding.
//
// Dot-product path (AVX-512 VNNI, vpdpbusd: four unsigned bytes times four signed bytes
// summed into each 32-bit lane). The input is rebuilt once per pass as words of four
// channels, [channel quad][padded row][column phase][column / stride], with its zero border
// written in, so that for one step (channel quad, ky, kx) the 16 outputs of a row segment
// read 16 consecutive words at any stride: no column matrix and no per-lane bounds. Lanes are
// outputs; each of 8 filters broadcasts its word of the step. Signed inputs are stored as
// x + 128 (unsigned); 128 x the filter's weight sum, kept from the packing, is taken off again.
//
// Exactness in 32 bits: |x w| <= 254 x 127 for unsigned inputs, so a sum of K terms cannot
// leave the int32 range while K <= 66572 (the layer takes its 8-bit path only up to there).
// The biased signed sums, up to 255 x 127 per term, may wrap past that, but every step is an
// addition modulo 2^32 (vpdpbusd does not saturate), so sum - offset is the true sum whenever
// the true sum, at most 127 x 127 x K in magnitude, is an int32. The portable path
// accumulates in uint32 for the same modular arithmetic, so the two agree for every K.
#include "kernels/conv_int8_host.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <cstring>

#include "backend/backend.h"
#include "base/error.h"
#include "kernels/half_math.h"

namespace cpu {
namespace {

constexpr int kLanes = 16;      // outputs per vector
constexpr int kBlockRows = 8;   // filters per block of the packed weights
constexpr int kBlockVectors = 3;  // vectors of outputs per kernel call: 8 x 3 sums in registers
constexpr int kScratchImage = 1, kScratchSums = 2;  // backend scratch slots (sums: the portable columns)

int cpg_of(const ConvShape& s) { return s.in_c / s.groups; }
int quads_of(const ConvShape& s) { return (cpg_of(s) + 3) / 4; }
int blocks_of(const ConvShape& s) { return (s.out_c / s.groups + kBlockRows - 1) / kBlockRows; }
int steps_of(const ConvShape& s) { return quads_of(s) * s.size * s.size; }

// The bordered input of one sample and group: quads x rows x stride phases x phase_w words.
struct Bordered {
  int rows, phase_w;
  size_t words;
  explicit Bordered(const ConvShape& s)
      : rows(s.in_h + 2 * s.pad),
        phase_w((s.in_w + 2 * s.pad + s.stride - 1) / s.stride),
        words((size_t)quads_of(s) * rows * s.stride * phase_w) {}
};

int floor_div(int a, int b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

}  // namespace

void conv_int8_prepare(Int8Filters& f, const ConvShape& s) {
  const int T = steps_of(s);
  f.words.assign((size_t)s.groups * blocks_of(s) * T * kBlockRows, 0);
  f.offsets.assign(s.out_c, 0);
  f.steps.resize(T);
  const Bordered b(s);
  for (int q = 0; q < quads_of(s); ++q)
    for (int ky = 0; ky < s.size; ++ky)
      for (int kx = 0; kx < s.size; ++kx) {
        const int dx = kx * s.dilation;
        f.steps[(q * s.size + ky) * s.size + kx] =
            (int32_t)((((size_t)q * b.rows + ky * s.dilation) * s.stride + dx % s.stride) * b.phase_w + dx / s.stride);
      }
  f.from = nullptr;
}

void conv_int8_repack(Int8Filters& f, const ConvShape& s, const signed char* qweight) {
  const int cpg = cpg_of(s), fpg = s.out_c / s.groups, area = s.size * s.size, K = cpg * area;
  const int T = steps_of(s), blocks = blocks_of(s);
  if (f.steps.size() != (size_t)T || f.words.size() != (size_t)s.groups * blocks * T * kBlockRows ||
      f.offsets.size() != (size_t)s.out_c)
    conv_int8_prepare(f, s);
  std::fill(f.words.begin(), f.words.end(), 0);
  for (int fl = 0; fl < s.out_c; ++fl) {
    const int g = fl / fpg, r = fl % fpg;
    const signed char* w = qweight + (size_t)fl * K;
    int32_t* dst = f.words.data() + ((size_t)g * blocks + r / kBlockRows) * T * kBlockRows + r % kBlockRows;
    int64_t sum = 0;
    for (int c = 0; c < cpg; ++c)
      for (int k = 0; k < area; ++k) {
        const signed char v = w[c * area + k];
        sum += v;
        uint32_t& word = reinterpret_cast<uint32_t&>(dst[(size_t)((c / 4) * area + k) * kBlockRows]);
        word |= (uint32_t)(unsigned char)v << (8 * (c % 4));
      }
    f.offsets[fl] = (int32_t)(uint32_t)(uint64_t)(sum * 128);
  }
  f.from = qweight;
}

// ---- portable path: per output row, each output's input values under the taps (a row of
// the transposed column matrix), then each sum a dot product over K for 4 filters at once,
// which compilers turn into widening multiply-adds ----

namespace {

constexpr int kPortableRows = 4;

template <typename Byte>
void portable_rows(const ConvShape& s, int batch, const unsigned char* plain, const signed char* qweight, float qscale,
                   const Ftype* bias, Ftype* output, int16_t* columns_all) {
  const int cpg = cpg_of(s), fpg = s.out_c / s.groups, K = cpg * s.size * s.size, N = s.out_h * s.out_w;
  tbb::parallel_for(0, batch * s.groups * s.out_h, [&](int task) {
    int16_t* col = columns_all + (size_t)K * s.out_w * tbb::this_task_arena::current_thread_index();
    const int y = task % s.out_h, g = task / s.out_h % s.groups, b = task / s.out_h / s.groups;
    const Byte* im = reinterpret_cast<const Byte*>(plain) + ((size_t)b * s.in_c + (size_t)g * cpg) * s.in_h * s.in_w;
    // col[x * K + k]: the input value under tap k for output x of the row, 0 on the border.
    for (int c = 0; c < cpg; ++c)
      for (int ky = 0; ky < s.size; ++ky) {
        const int iy = y * s.stride - s.pad + ky * s.dilation;
        for (int kx = 0; kx < s.size; ++kx) {
          int16_t* d = col + (c * s.size + ky) * s.size + kx;
          const int off = kx * s.dilation - s.pad;
          int x_lo = std::min(s.out_w, off >= 0 ? 0 : (-off + s.stride - 1) / s.stride);
          int x_hi = std::max(x_lo, std::min(s.out_w, floor_div(s.in_w - 1 - off, s.stride) + 1));
          if (iy < 0 || iy >= s.in_h) x_lo = x_hi = s.out_w;
          for (int x = 0; x < x_lo; ++x) d[(size_t)x * K] = 0;
          if (x_hi > x_lo) {
            const Byte* row = im + ((size_t)c * s.in_h + iy) * s.in_w;
            for (int x = x_lo; x < x_hi; ++x) d[(size_t)x * K] = row[x * s.stride + off];
          }
          for (int x = x_hi; x < s.out_w; ++x) d[(size_t)x * K] = 0;
        }
      }
    for (int f0 = 0; f0 < fpg; f0 += kPortableRows) {
      const int nf = std::min(kPortableRows, fpg - f0);
      // A block past the last filter repeats it; its sums are not stored.
      const signed char* w0 = qweight + ((size_t)g * fpg + f0) * K;
      const signed char* w1 = w0 + (size_t)std::min(1, nf - 1) * K;
      const signed char* w2 = w0 + (size_t)std::min(2, nf - 1) * K;
      const signed char* w3 = w0 + (size_t)std::min(3, nf - 1) * K;
      float bf[kPortableRows];
      for (int r = 0; r < nf; ++r) bf[r] = h2f(bias[g * fpg + f0 + r]);
      Ftype* out = output + ((size_t)b * s.out_c + g * fpg + f0) * N + (size_t)y * s.out_w;
      for (int x = 0; x < s.out_w; ++x) {
        const int16_t* v = col + (size_t)x * K;
        uint32_t s0 = 0, s1 = 0, s2 = 0, s3 = 0;
        for (int k = 0; k < K; ++k) {
          const int32_t vk = v[k];
          s0 += (uint32_t)(w0[k] * vk);
          s1 += (uint32_t)(w1[k] * vk);
          s2 += (uint32_t)(w2[k] * vk);
          s3 += (uint32_t)(w3[k] * vk);
        }
        const uint32_t sums[kPortableRows] = {s0, s1, s2, s3};
        for (int r = 0; r < nf; ++r) out[(size_t)r * N + x] = f2h(qscale * (float)(int32_t)sums[r] + bf[r]);
      }
    }
  });
}

}  // namespace

void conv_int8_forward_portable(void* handle, const ConvShape& s, int batch, const char* qinput,
                                const signed char* qweight, float qscale, const Ftype* bias, Ftype* output) {
  const size_t inputs = (size_t)s.in_c * s.in_h * s.in_w;
  const unsigned char* plain = reinterpret_cast<const unsigned char*>(qinput) + inputs * s.batch;
  const int threads = tbb::this_task_arena::max_concurrency();
  const size_t per_thread = (size_t)cpg_of(s) * s.size * s.size * s.out_w;
  int16_t* columns = static_cast<int16_t*>(
      ORVA::backend_of(handle)->scratch(kScratchSums, sizeof(int16_t) * per_thread * threads));
  if (!columns)
    ORVA_THROW("conv_forward_int8: no host scratch for %d threads' columns of %zu values", threads, per_thread);
  if (s.int8 > 0)
    portable_rows<unsigned char>(s, batch, plain, qweight, qscale, bias, output, columns);
  else
    portable_rows<signed char>(s, batch, plain, qweight, qscale, bias, output, columns);
}

// ---- dot-product path ----

#if defined(__x86_64__)

bool conv_int8_dot_products() {
  return __builtin_cpu_supports("avx512vnni") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl");
}

namespace {

// One vector of outputs: where its words start in the bordered input (for step 0), where its
// outputs go in a filter's plane, and which lanes are outputs.
struct OutVector {
  size_t in, out;
  __mmask16 lanes;
};

// 8 filters x V vectors: the sums over all steps, then qscale * (sum - offset) + bias in
// float, each operation rounded on its own (no contraction), and one rounding to half.
template <int V>
__attribute__((target("avx512f,avx512bw,avx512vl,avx512vnni"))) void dot_block(
    int T, const int32_t* w, const int32_t* steps, const uint32_t* image, const OutVector* vec, int rows,
    const int32_t* offsets, const float* bias, float qscale, Ftype* out, size_t plane) {
  __m512i acc[kBlockRows][V];
  for (int r = 0; r < kBlockRows; ++r)
    for (int j = 0; j < V; ++j) acc[r][j] = _mm512_setzero_si512();
  const uint32_t* in[V];
  for (int j = 0; j < V; ++j) in[j] = image + vec[j].in;
  for (int t = 0; t < T; ++t, w += kBlockRows) {
    const int32_t at = steps[t];
    __m512i x[V];
#pragma GCC unroll 3
    for (int j = 0; j < V; ++j) x[j] = _mm512_loadu_si512(in[j] + at);
#pragma GCC unroll 8
    for (int r = 0; r < kBlockRows; ++r) {
      const __m512i wv = _mm512_set1_epi32(w[r]);
#pragma GCC unroll 3
      for (int j = 0; j < V; ++j) acc[r][j] = _mm512_dpbusd_epi32(acc[r][j], x[j], wv);
    }
  }
  const __m512 scale = _mm512_set1_ps(qscale);
  constexpr int kRound = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
  // Every row goes through the same unrolled code, the rows past `rows` into a spare block: a
  // loop that stopped early would keep the sums in memory instead of registers.
  alignas(64) Ftype spare[kLanes * V];
#pragma GCC unroll 8
  for (int r = 0; r < kBlockRows; ++r) {
    const __m512i off = _mm512_set1_epi32(offsets[r]);
    const __m512 b = _mm512_set1_ps(bias[r]);
#pragma GCC unroll 3
    for (int j = 0; j < V; ++j) {
      // The zero-masked forms with every lane set: the plain ones leave GCC 12 warning about
      // their undefined pass-through operand.
      __m512 v = _mm512_maskz_cvt_roundepi32_ps(0xFFFF, _mm512_sub_epi32(acc[r][j], off), kRound);
      v = _mm512_maskz_add_round_ps(0xFFFF, _mm512_maskz_mul_round_ps(0xFFFF, v, scale, kRound), b, kRound);
      _mm256_mask_storeu_epi16(r < rows ? out + r * plane + vec[j].out : spare + kLanes * j, vec[j].lanes,
                               _mm512_maskz_cvtps_ph(0xFFFF, v, _MM_FROUND_TO_NEAREST_INT));
    }
  }
}

// Sixteen words from sixteen bytes of each of four channels: byte j of a word is channel j.
inline void store_words(uint32_t* d, __m128i b0, __m128i b1, __m128i b2, __m128i b3, __m128i flip) {
  const __m128i l01 = _mm_unpacklo_epi8(b0, b1), h01 = _mm_unpackhi_epi8(b0, b1);
  const __m128i l23 = _mm_unpacklo_epi8(b2, b3), h23 = _mm_unpackhi_epi8(b2, b3);
  __m128i* o = reinterpret_cast<__m128i*>(d);
  _mm_storeu_si128(o, _mm_xor_si128(_mm_unpacklo_epi16(l01, l23), flip));
  _mm_storeu_si128(o + 1, _mm_xor_si128(_mm_unpackhi_epi16(l01, l23), flip));
  _mm_storeu_si128(o + 2, _mm_xor_si128(_mm_unpacklo_epi16(h01, h23), flip));
  _mm_storeu_si128(o + 3, _mm_xor_si128(_mm_unpackhi_epi16(h01, h23), flip));
}

// Bytes 0, 2, ..., 30 of p.
inline __m128i even_bytes(const unsigned char* p) {
  const __m128i low = _mm_set1_epi16(0x00FF);
  return _mm_packus_epi16(_mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), low),
                          _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)), low));
}

// The bordered input words of one sample, group and channel quad.
void build_quad(const ConvShape& s, const Bordered& geo, const unsigned char* group_im, int q, bool is_signed,
                uint32_t* dst) {
  const int cpg = cpg_of(s), stride = s.stride;
  const uint32_t flip = is_signed ? 0x80808080u : 0u;  // signed x to x + 128; the border is x = 0
  const unsigned char* ch[4];
  int present = 0;
  for (int j = 0; j < 4; ++j)
    if (4 * q + j < cpg) ch[present++] = group_im + (size_t)(4 * q + j) * s.in_h * s.in_w;
  for (int iy = 0; iy < geo.rows; ++iy) {
    const int y = iy - s.pad;
    uint32_t* row = dst + (size_t)iy * stride * geo.phase_w;
    if (y < 0 || y >= s.in_h) {
      std::fill(row, row + (size_t)stride * geo.phase_w, flip);
      continue;
    }
    const size_t at = (size_t)y * s.in_w;
    for (int ph = 0; ph < stride; ++ph) {
      uint32_t* d = row + (size_t)ph * geo.phase_w;
      // Words q of this phase hold column x = q * stride + ph - pad.
      const int lo = std::min(geo.phase_w, std::max(0, (s.pad - ph + stride - 1) / stride));
      const int hi = std::max(lo, std::min(geo.phase_w, floor_div(s.in_w - 1 + s.pad - ph, stride) + 1));
      std::fill(d, d + lo, flip);
      std::fill(d + hi, d + geo.phase_w, flip);
      const int x0 = lo * stride + ph - s.pad;
      if (present == 4) {
        const unsigned char *c0 = ch[0] + at + x0, *c1 = ch[1] + at + x0, *c2 = ch[2] + at + x0, *c3 = ch[3] + at + x0;
        // Sixteen words at a time while the loads stay inside the row, then one by one.
        int i = 0;
        const __m128i vflip = _mm_set1_epi32((int)flip);
        if (stride == 1) {
          for (; i + 16 <= hi - lo; i += 16) {
            auto load = [i](const unsigned char* c) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i)); };
            store_words(d + lo + i, load(c0), load(c1), load(c2), load(c3), vflip);
          }
        } else if (stride == 2) {
          for (; i + 16 <= hi - lo && x0 + 2 * i + 32 <= s.in_w; i += 16)
            store_words(d + lo + i, even_bytes(c0 + 2 * i), even_bytes(c1 + 2 * i), even_bytes(c2 + 2 * i),
                        even_bytes(c3 + 2 * i), vflip);
        }
        if (stride == 1)
          for (; i < hi - lo; ++i)
            d[lo + i] = ((uint32_t)c0[i] | (uint32_t)c1[i] << 8 | (uint32_t)c2[i] << 16 | (uint32_t)c3[i] << 24) ^ flip;
        else
          for (; i < hi - lo; ++i) {
            const size_t x = (size_t)i * stride;
            d[lo + i] = ((uint32_t)c0[x] | (uint32_t)c1[x] << 8 | (uint32_t)c2[x] << 16 | (uint32_t)c3[x] << 24) ^ flip;
          }
      } else {
        // The last quad of a group whose channels are not a multiple of four: the missing
        // channels' weights are zero, so their bytes only need to be defined.
        for (int i = 0; i < hi - lo; ++i) {
          const size_t x = at + x0 + (size_t)i * stride;
          uint32_t word = 0;
          for (int j = 0; j < present; ++j) word |= (uint32_t)ch[j][x] << (8 * j);
          d[lo + i] = word ^ flip;
        }
      }
    }
  }
}

}  // namespace

void conv_int8_forward(void* handle, const ConvShape& s, Int8Filters& f, int batch, const char* qinput,
                       const signed char* qweight, float qscale, const Ftype* bias, Ftype* output) {
  if (!conv_int8_dot_products()) return conv_int8_forward_portable(handle, s, batch, qinput, qweight, qscale, bias, output);
  if (f.from != qweight) conv_int8_repack(f, s, qweight);
  const int cpg = cpg_of(s), fpg = s.out_c / s.groups, quads = quads_of(s), T = steps_of(s), blocks = blocks_of(s);
  const size_t N = (size_t)s.out_h * s.out_w;
  const Bordered geo(s);
  const unsigned char* plain =
      reinterpret_cast<const unsigned char*>(qinput) + (size_t)s.in_c * s.in_h * s.in_w * s.batch;
  const int images = batch * s.groups;
  // A vector's last lanes may read up to 15 words past the last word an output uses.
  uint32_t* image = static_cast<uint32_t*>(
      ORVA::backend_of(handle)->scratch(kScratchImage, sizeof(uint32_t) * (geo.words * images + kLanes)));
  if (!image) ORVA_THROW("conv_forward_int8: no host scratch for %d bordered inputs of %zu words", images, geo.words);
  const size_t quad_words = (size_t)geo.rows * s.stride * geo.phase_w;
  tbb::parallel_for(0, images * quads, [&](int task) {
    const int q = task % quads, bg = task / quads, b = bg / s.groups, g = bg % s.groups;
    build_quad(s, geo, plain + ((size_t)b * s.in_c + (size_t)g * cpg) * s.in_h * s.in_w, q, s.int8 <= 0,
               image + (size_t)bg * geo.words + q * quad_words);
  });
  std::fill(image + geo.words * images, image + geo.words * images + kLanes, 0u);

  // Tasks: ranges of output vectors, split by filter blocks too when the samples' vectors
  // give the threads too few.
  const int per_row = (s.out_w + kLanes - 1) / kLanes, vectors = s.out_h * per_row;
  const int calls = (vectors + kBlockVectors - 1) / kBlockVectors;
  const int want = 4 * tbb::this_task_arena::max_concurrency();
  const int vparts = std::min(calls, (want + images - 1) / images);
  const int fparts = images * vparts >= want ? 1 : std::min(blocks, (want + images * vparts - 1) / (images * vparts));
  const bool is_signed = s.int8 <= 0;
  tbb::parallel_for(0, images * vparts * fparts, [&](int task) {
    const int fp = task % fparts, vp = task / fparts % vparts, bg = task / fparts / vparts;
    const int b = bg / s.groups, g = bg % s.groups;
    const int v0 = (int)((long long)calls * vp / vparts) * kBlockVectors;
    const int v1 = std::min(vectors, (int)((long long)calls * (vp + 1) / vparts) * kBlockVectors);
    const uint32_t* im = image + (size_t)bg * geo.words;
    for (int fb = blocks * fp / fparts, fend = blocks * (fp + 1) / fparts; fb < fend; ++fb) {
      const int f0 = g * fpg + fb * kBlockRows, rows = std::min(kBlockRows, fpg - fb * kBlockRows);
      const int32_t* w = f.words.data() + ((size_t)g * blocks + fb) * T * kBlockRows;
      float bf[kBlockRows] = {};
      int32_t off[kBlockRows] = {};
      for (int r = 0; r < rows; ++r) {
        bf[r] = h2f(bias[f0 + r]);
        off[r] = is_signed ? f.offsets[f0 + r] : 0;
      }
      Ftype* out = output + ((size_t)b * s.out_c + f0) * N;
      for (int v = v0; v < v1; v += kBlockVectors) {
        const int n = std::min(kBlockVectors, v1 - v);
        OutVector vec[kBlockVectors];
        for (int j = 0; j < n; ++j) {
          const int y = (v + j) / per_row, x0 = (v + j) % per_row * kLanes;
          vec[j].in = (size_t)y * s.stride * s.stride * geo.phase_w + x0;
          vec[j].out = (size_t)y * s.out_w + x0;
          vec[j].lanes = (__mmask16)((1u << std::min(kLanes, s.out_w - x0)) - 1);
        }
        if (n == 3) dot_block<3>(T, w, f.steps.data(), im, vec, rows, off, bf, qscale, out, N);
        else if (n == 2) dot_block<2>(T, w, f.steps.data(), im, vec, rows, off, bf, qscale, out, N);
        else dot_block<1>(T, w, f.steps.data(), im, vec, rows, off, bf, qscale, out, N);
      }
    }
  });
}

#else

bool conv_int8_dot_products() { return false; }

void conv_int8_forward(void* handle, const ConvShape& s, Int8Filters&, int batch, const char* qinput,
                       const signed char* qweight, float qscale, const Ftype* bias, Ftype* output) {
  conv_int8_forward_portable(handle, s, batch, qinput, qweight, qscale, bias, output);
}

#endif

}  // namespace cpu
