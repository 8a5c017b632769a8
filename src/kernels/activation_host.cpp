// Host twins of the activation kernels. Every step the device takes in half is taken here in
// float and rounded to half, every float step is float, so both backends agree value for value.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cmath>

#include "kernels/activation_kernel.h"
#include "kernels/half_lanes.h"
#include "kernels/half_math.h"

namespace cpu {

namespace {

inline _half hneg(_half x) { return _half{(unsigned short)(x.__x ^ 0x8000)}; }
inline _half hsub(_half a, _half b) { return f2h(h2f(a) - h2f(b)); }
inline bool hgt(_half a, _half b) { return h2f(a) > h2f(b); }
inline bool hlt(_half a, _half b) { return h2f(a) < h2f(b); }
inline _half select(bool c) { return c ? fp_1 : fp_0; }
const _half fp_3 = {0x4200};

// The device's exponential: 2^(t * log2 e), with the cut-offs that keep far tails exact.
inline float fast_exp(float t) {
  if (t < -105.f) return 0.f;
  if (t > 105.f) return INFINITY;
  return exp2f(t * 1.442695f);
}

inline float tanh_float(float x) { return 2.f / (1.f + fast_exp(-2.f * x)) - 1.f; }

inline float softplus(float x) {
  // 20 is exact in half, so comparing the widened value is the half comparison.
  if (x < -20.f) return fast_exp(x);
  if (x < 20.f) return logf(1.f + fast_exp(x));
  return x;
}

_half logistic_activate(_half x) { return f2h(1.f / (1.f + fast_exp(h2f(hneg(x))))); }
_half relu_activate(_half x) { return hgt(x, fp_0) ? x : fp_0; }
_half relie_activate(_half x) { return hgt(x, fp_0) ? x : hmul(fp_0_01, x); }
_half linear_activate(_half x) { return x; }
_half tanh_activate(_half x) { return f2h(tanh_float(h2f(x))); }
_half leaky_activate(_half x) { return hgt(x, fp_0) ? x : hmul(fp_0_1, x); }
_half elu_activate(_half x) { return hlt(x, fp_0) ? f2h(fast_exp(h2f(x)) - 1.f) : x; }
_half loggy_activate(_half x) { return f2h(2.f / (1.f + fast_exp(h2f(hneg(x)))) - 1.f); }
_half hardtan_activate(_half x) { return hlt(x, fp_1N) ? fp_1N : (hgt(x, fp_1) ? fp_1 : x); }
_half relu6_activate(_half x) { return hgt(x, fp_0) ? (hgt(x, fp_6) ? fp_6 : x) : fp_0; }
_half relu10_activate(_half x) { return hgt(x, fp_0) ? (hgt(x, fp_10) ? fp_10 : x) : fp_0; }
_half mish_activate(_half x) {
  const float v = h2f(x);
  return f2h(v * tanh_float(softplus(v)));
}

_half swish_activate(_half x) {
  const float v = h2f(x);
  return f2h(v / (1.f + fast_exp(-v)));
}
// relu6(x + 3) / 6 and x times it: the addition in half, the rest in float.
inline float hard_gate(_half x) { return h2f(relu6_activate(hadd(x, fp_3))); }
_half hswish_activate(_half x) { return f2h(h2f(x) * hard_gate(x) / 6.f); }
_half hsigmoid_activate(_half x) { return f2h(hard_gate(x) / 6.f); }

_half logistic_gradient(_half y) { return hmul(hsub(fp_1, y), y); }
_half relu_gradient(_half y) { return select(hgt(y, fp_0)); }
_half relie_gradient(_half y) { return hgt(y, fp_0) ? fp_1 : fp_0_01; }
_half linear_gradient(_half) { return fp_1; }
_half tanh_gradient(_half y) { return hsub(fp_1, hmul(y, y)); }
_half leaky_gradient(_half y) { return hgt(y, fp_0) ? fp_1 : fp_0_1; }
_half elu_gradient(_half y) { return hlt(y, fp_0) ? hadd(y, fp_1) : fp_1; }
_half loggy_gradient(_half y) {
  const _half u = hmul(hadd(y, fp_1), fp_0_5);
  return hmul(hmul(fp_2, hsub(fp_1, u)), u);
}
_half hardtan_gradient(_half y) { return select(hgt(y, fp_1N) && hlt(y, fp_1)); }
_half relu6_gradient(_half y) { return select(hgt(y, fp_0) && !hgt(y, fp_6)); }
_half relu10_gradient(_half y) { return select(hgt(y, fp_0) && !hgt(y, fp_10)); }
_half mish_gradient(_half y) {
  const float sp = softplus(h2f(y));
  const float t = tanh_float(sp);
  const float bracket = t + (1.f - t * t) * (1.f - fast_exp(-sp));
  return hmul(y, f2h(bracket));
}
// From the output: y >= 3 is the identity; below, the input is the larger root of
// y = x (x + 3) / 6, where the slope (2 x + 3) / 6 is sqrt(9 + 24 y) / 6. Exact for inputs
// above -1.5, where nearly all values of a trained network lie.
_half hswish_gradient(_half y) {
  const float v = h2f(y);
  if (!(v < 3.f)) return v >= 3.f ? fp_1 : fp_0;
  const float d = 9.f + 24.f * v;
  return d > 0.f ? f2h(sqrtf(d) / 6.f) : fp_0;
}
_half hsigmoid_gradient(_half y) { return (hgt(y, fp_0) && hlt(y, fp_1)) ? f2h(1.f / 6.f) : fp_0; }

// Taken at x = y, exact where the output is positive and large, as for mish.
_half swish_gradient(_half y) {
  const float v = h2f(y);
  const float s = 1.f / (1.f + fast_exp(-v));
  const float vs = v * s;
  const float slope = vs * (1.f - s);
  return f2h(s + slope);
}

using ValueFn = _half (*)(_half);

const ValueFn activate_func[kActivationSlots] = {
    logistic_activate, relu_activate,    relie_activate, linear_activate, nullptr,         tanh_activate,
    nullptr,           leaky_activate,   elu_activate,   loggy_activate,  nullptr,         hardtan_activate,
    nullptr,           relu6_activate,   relu10_activate, mish_activate,
    swish_activate,           hswish_activate,  hsigmoid_activate};
const ValueFn gradient_func[kActivationSlots] = {
    logistic_gradient, relu_gradient,    relie_gradient, linear_gradient, nullptr,         tanh_gradient,
    nullptr,           leaky_gradient,   elu_gradient,   loggy_gradient,  nullptr,         hardtan_gradient,
    nullptr,           relu6_gradient,   relu10_gradient, mish_gradient,
    swish_gradient,           hswish_gradient,  hsigmoid_gradient};

// Loops are instantiated per function so the per-value code inlines; the tables above serve
// single values only.
// Eight values at a time for the activations that are comparisons and one half multiply:
// the lanes widen, the comparison picks lanes without a branch (a sign test mispredicts on
// every other value of real data), and each half step is rounded back as the scalar twin does.
// The others (exponentials) stay value by value.
inline Mask gt8(Lanes x, _half h) { return cpu::gt8(x, splat8(h)); }
inline Mask lt8(Lanes x, _half h) { return cpu::lt8(x, splat8(h)); }
inline Lanes scaled8(Lanes x, _half h) { return round8(mul8(x, splat8(h))); }

template <ValueFn F>
struct Eight {
  static constexpr bool kHas = false;
  static Lanes run(Lanes x) { return x; }
};
template <>
struct Eight<relu_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return pick8(gt8(x, fp_0), x, zero8()); }
};
template <>
struct Eight<relie_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return pick8(gt8(x, fp_0), x, scaled8(x, fp_0_01)); }
};
template <>
struct Eight<leaky_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return pick8(gt8(x, fp_0), x, scaled8(x, fp_0_1)); }
};
template <>
struct Eight<linear_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return x; }
};
template <>
struct Eight<hardtan_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return pick8(lt8(x, fp_1N), splat8(fp_1N), pick8(gt8(x, fp_1), splat8(fp_1), x)); }
};
inline Lanes clipped8(Lanes x, _half top) {
  return pick8(gt8(x, fp_0), pick8(gt8(x, top), splat8(top), x), zero8());
}
template <>
struct Eight<relu6_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return clipped8(x, fp_6); }
};
template <>
struct Eight<relu10_activate> {
  static constexpr bool kHas = true;
  static Lanes run(Lanes x) { return clipped8(x, fp_10); }
};

// F over p[0, n) after adding b (rounded, as hadd) when `with_bias`.
template <ValueFn F, bool with_bias>
void activate_span(Ftype* p, int n, _half b) {
  int i = 0;
  if (Eight<F>::kHas) {
    const Lanes bias = splat8(b);
    for (; i + 8 <= n; i += 8) {
      Lanes x = load8(p + i);
      if (with_bias) x = round8(add8(x, bias));
      store8(p + i, Eight<F>::run(x));
    }
  }
  for (; i < n; ++i) p[i] = F(with_bias ? hadd(p[i], b) : p[i]);
}

// A product's floats rounded to half, then F after adding b: the same roundings as narrowing
// first and running activate_span<F, true> over the halves, without the second pass.
template <ValueFn F>
void narrow_bias_activate(const float* src, Ftype* dst, int n, _half b) {
  int i = 0;
  if (Eight<F>::kHas) {
    const Lanes bias = splat8(b);
    for (; i + 8 <= n; i += 8) store8(dst + i, Eight<F>::run(round8(add8(round8(loadf8(src + i)), bias))));
  }
  for (; i < n; ++i) dst[i] = F(hadd(f2h(src[i]), b));
}

#if defined(__x86_64__) && defined(ORVA_LANES_F16C)
#define ORVA_TARGET_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl")))
// Sixteen values at a time on AVX-512 hosts (chosen at run time) for the activations that
// keep a value or replace it by one half product: the half results are chosen after their
// last rounding (the stored bits of z or of half(z * slope)), so neither is widened again
// and stored a second time. The same roundings as narrow_bias_activate, bit for bit: storing
// a value already rounded to half rounds nothing, NaN payloads included.
template <ValueFn F>
ORVA_TARGET_AVX512 inline __m256i choose16(__m512 z, __m256i zh) {
  const __mmask16 positive = _mm512_cmp_ps_mask(z, _mm512_setzero_ps(), _CMP_GT_OQ);
  if (F == relu_activate) return _mm256_maskz_mov_epi16(positive, zh);
  if (F == linear_activate) return zh;
  const __m512 slope = _mm512_set1_ps(h2f(F == leaky_activate ? fp_0_1 : fp_0_01));
  return _mm256_mask_blend_epi16(positive, _mm512_cvtps_ph(_mm512_mul_ps(z, slope), _MM_FROUND_TO_NEAREST_INT), zh);
}

template <ValueFn F>
ORVA_TARGET_AVX512 void narrow_bias_activate16(const float* src, Ftype* dst, int n, _half b) {
  const __m512 bias = _mm512_set1_ps(h2f(b));
  for (int i = 0; i < n; i += 16) {
    const __mmask16 take = n - i >= 16 ? (__mmask16)0xFFFF : (__mmask16)((1u << (n - i)) - 1);
    const __m512 x = _mm512_cvtph_ps(_mm512_cvtps_ph(_mm512_maskz_loadu_ps(take, src + i), _MM_FROUND_TO_NEAREST_INT));
    const __m256i zh = _mm512_cvtps_ph(_mm512_add_ps(x, bias), _MM_FROUND_TO_NEAREST_INT);
    _mm256_mask_storeu_epi16(dst + i, take, choose16<F>(_mm512_cvtph_ps(zh), zh));
  }
}

NarrowBiasActivateFn narrow_bias_activate_avx512(int type) {
  if (!__builtin_cpu_supports("avx512bw") || !__builtin_cpu_supports("avx512vl")) return nullptr;
  switch (type) {
    case 1: return narrow_bias_activate16<relu_activate>;
    case 2: return narrow_bias_activate16<relie_activate>;
    case 3: return narrow_bias_activate16<linear_activate>;
    case 7: return narrow_bias_activate16<leaky_activate>;
    default: return nullptr;
  }
}
#else
NarrowBiasActivateFn narrow_bias_activate_avx512(int) { return nullptr; }
#endif

template <ValueFn F>
void activate_range(Ftype* x, int n) {
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 4096), [&](const tbb::blocked_range<int>& r) {
    activate_span<F, false>(x + r.begin(), r.end() - r.begin(), fp_0);
  });
}

template <ValueFn F>
void gradient_range(Ftype* x, int n, Ftype* delta) {
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 4096), [&](const tbb::blocked_range<int>& r) {
    for (int i = r.begin(); i != r.end(); ++i) delta[i] = hmul(delta[i], F(x[i]));
  });
}

template <ValueFn F>
void add_bias_activate_rows(Ftype* output, const Ftype* bias, int batch, int n, int size) {
  const int rows = batch * n;
  const int grain = size >= 4096 ? 1 : 4096 / size;
  tbb::parallel_for(tbb::blocked_range<int>(0, rows, grain), [&](const tbb::blocked_range<int>& r) {
    for (int row = r.begin(); row != r.end(); ++row)
      activate_span<F, true>(output + (size_t)row * size, size, bias[row % n]);
  });
}

// Calls Op<activate fn, gradient fn>::run(args...) for the id; false for an empty slot.
template <template <ValueFn, ValueFn> class Op, typename... Args>
bool with_functions(int type, Args... args) {
  switch (type) {
    case 0: Op<logistic_activate, logistic_gradient>::run(args...); return true;
    case 1: Op<relu_activate, relu_gradient>::run(args...); return true;
    case 2: Op<relie_activate, relie_gradient>::run(args...); return true;
    case 3: Op<linear_activate, linear_gradient>::run(args...); return true;
    case 5: Op<tanh_activate, tanh_gradient>::run(args...); return true;
    case 7: Op<leaky_activate, leaky_gradient>::run(args...); return true;
    case 8: Op<elu_activate, elu_gradient>::run(args...); return true;
    case 9: Op<loggy_activate, loggy_gradient>::run(args...); return true;
    case 11: Op<hardtan_activate, hardtan_gradient>::run(args...); return true;
    case 13: Op<relu6_activate, relu6_gradient>::run(args...); return true;
    case 14: Op<relu10_activate, relu10_gradient>::run(args...); return true;
    case 15: Op<mish_activate, mish_gradient>::run(args...); return true;
    case 16: Op<swish_activate, swish_gradient>::run(args...); return true;
    case 17: Op<hswish_activate, hswish_gradient>::run(args...); return true;
    case 18: Op<hsigmoid_activate, hsigmoid_gradient>::run(args...); return true;
    default: return false;
  }
}

template <ValueFn A, ValueFn G>
struct ActivateOp {
  static void run(Ftype* x, int n) { activate_range<A>(x, n); }
};
template <ValueFn A, ValueFn G>
struct GradientOp {
  static void run(Ftype* x, int n, Ftype* delta) { gradient_range<G>(x, n, delta); }
};
template <ValueFn A, ValueFn G>
struct AddBiasActivateOp {
  static void run(Ftype* output, Ftype* bias, int batch, int n, int size) {
    add_bias_activate_rows<A>(output, bias, batch, n, size);
  }
};

template <ValueFn A, ValueFn G>
struct NarrowBiasActivateOp {
  static void run(NarrowBiasActivateFn* fn) { *fn = narrow_bias_activate<A>; }
};

}  // namespace

NarrowBiasActivateFn narrow_bias_activate_fn(int type) {
  NarrowBiasActivateFn fn = narrow_bias_activate_avx512(type);
  if (fn) return fn;
  with_functions<NarrowBiasActivateOp>(type, &fn);
  return fn;
}

_half activate_value(int type, _half x) { return activate_func[type](x); }
_half gradient_value(int type, _half y) { return gradient_func[type](y); }

void activate(void*, int type, Ftype* x, int n) { with_functions<ActivateOp>(type, x, n); }

void add_bias_activate(void*, int type, Ftype* output, Ftype* bias, int batch, int n, int size) {
  with_functions<AddBiasActivateOp>(type, output, bias, batch, n, size);
}

void gradient(void*, int type, Ftype* x, int n, Ftype* delta) { with_functions<GradientOp>(type, x, n, delta); }

}  // namespace cpu
