// Activation kernels. Single multiplies, adds and comparisons stay in half; exponentials,
// divisions and logarithms widen to float and narrow with round-to-nearest. Every multiply
// and add is an explicitly rounded one, as in the host twins: an unrounded half multiply
// feeding an add may be fused into one rounding by the device compiler.
#include <cuda_fp16.h>

#include "kernels/activation_kernel.h"
#include "backend/cuda_check.h"

namespace {

__device__ __forceinline__ __half hc(unsigned short bits) { return __ushort_as_half(bits); }
// The half constants of the host header, as bit patterns usable in device code.
__device__ __forceinline__ __half h_0() { return hc(0x0000); }
__device__ __forceinline__ __half h_0_01() { return hc(0x211F); }
__device__ __forceinline__ __half h_0_1() { return hc(0x2E66); }
__device__ __forceinline__ __half h_0_5() { return hc(0x3800); }
__device__ __forceinline__ __half h_1() { return hc(0x3C00); }
__device__ __forceinline__ __half h_1N() { return hc(0xBC00); }
__device__ __forceinline__ __half h_2() { return hc(0x4000); }
__device__ __forceinline__ __half h_3() { return hc(0x4200); }
__device__ __forceinline__ __half h_6() { return hc(0x4600); }
__device__ __forceinline__ __half h_10() { return hc(0x4900); }
__device__ __forceinline__ __half select(bool c) { return c ? h_1() : h_0(); }

// The exact float product or sum of two halves, rounded once to half: the native half
// operation's value, on every architecture and toolkit, and never fused.
__device__ __forceinline__ __half hmul(__half a, __half b) {
  return __float2half_rn(__fmul_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ __half hadd(__half a, __half b) {
  return __float2half_rn(__fadd_rn(__half2float(a), __half2float(b)));
}
__device__ __forceinline__ __half hsub(__half a, __half b) {
  return __float2half_rn(__fsub_rn(__half2float(a), __half2float(b)));
}

__device__ __forceinline__ float fast_exp(float t) {
  if (t < -105.f) return 0.f;
  if (t > 105.f) return __int_as_float(0x7F800000);
  return exp2f(t * 1.442695f);
}

__device__ __forceinline__ float tanh_float(float x) { return 2.f / (1.f + fast_exp(-2.f * x)) - 1.f; }

__device__ __forceinline__ float softplus(float x) {
  if (x < -20.f) return fast_exp(x);
  if (x < 20.f) return logf(1.f + fast_exp(x));
  return x;
}

__device__ __half logistic_activate(__half x) { return __float2half_rn(1.f / (1.f + fast_exp(__half2float(__hneg(x))))); }
__device__ __half relu_activate(__half x) { return __hgt(x, h_0()) ? x : h_0(); }
__device__ __half relie_activate(__half x) { return __hgt(x, h_0()) ? x : hmul(h_0_01(), x); }
__device__ __half linear_activate(__half x) { return x; }
__device__ __half tanh_activate(__half x) { return __float2half_rn(tanh_float(__half2float(x))); }
__device__ __half leaky_activate(__half x) { return __hgt(x, h_0()) ? x : hmul(h_0_1(), x); }
__device__ __half elu_activate(__half x) {
  return __hlt(x, h_0()) ? __float2half_rn(fast_exp(__half2float(x)) - 1.f) : x;
}
__device__ __half loggy_activate(__half x) {
  return __float2half_rn(2.f / (1.f + fast_exp(__half2float(__hneg(x)))) - 1.f);
}
__device__ __half hardtan_activate(__half x) { return __hlt(x, h_1N()) ? h_1N() : (__hgt(x, h_1()) ? h_1() : x); }
__device__ __half relu6_activate(__half x) { return __hgt(x, h_0()) ? (__hgt(x, h_6()) ? h_6() : x) : h_0(); }
__device__ __half relu10_activate(__half x) { return __hgt(x, h_0()) ? (__hgt(x, h_10()) ? h_10() : x) : h_0(); }
__device__ __half mish_activate(__half x) {
  const float v = __half2float(x);
  return __float2half_rn(v * tanh_float(softplus(v)));
}

__device__ __half swish_activate(__half x) {
  const float v = __half2float(x);
  return __float2half_rn(v / (1.f + fast_exp(-v)));
}
__device__ __forceinline__ float hard_gate(__half x) { return __half2float(relu6_activate(hadd(x, h_3()))); }
__device__ __half hswish_activate(__half x) {
  return __float2half_rn(__fdiv_rn(__fmul_rn(__half2float(x), hard_gate(x)), 6.f));
}
__device__ __half hsigmoid_activate(__half x) { return __float2half_rn(__fdiv_rn(hard_gate(x), 6.f)); }

__device__ __half logistic_gradient(__half y) { return hmul(hsub(h_1(), y), y); }
__device__ __half relu_gradient(__half y) { return select(__hgt(y, h_0())); }
__device__ __half relie_gradient(__half y) { return __hgt(y, h_0()) ? h_1() : h_0_01(); }
__device__ __half linear_gradient(__half) { return h_1(); }
__device__ __half tanh_gradient(__half y) { return hsub(h_1(), hmul(y, y)); }
__device__ __half leaky_gradient(__half y) { return __hgt(y, h_0()) ? h_1() : h_0_1(); }
__device__ __half elu_gradient(__half y) { return __hlt(y, h_0()) ? hadd(y, h_1()) : h_1(); }
__device__ __half loggy_gradient(__half y) {
  const __half u = hmul(hadd(y, h_1()), h_0_5());
  return hmul(hmul(h_2(), hsub(h_1(), u)), u);
}
__device__ __half hardtan_gradient(__half y) { return select(__hgt(y, h_1N()) && __hlt(y, h_1())); }
__device__ __half relu6_gradient(__half y) { return select(__hgt(y, h_0()) && !__hgt(y, h_6())); }
__device__ __half relu10_gradient(__half y) { return select(__hgt(y, h_0()) && !__hgt(y, h_10())); }
__device__ __half mish_gradient(__half y) {
  const float sp = softplus(__half2float(y));
  const float t = tanh_float(sp);
  const float bracket = __fadd_rn(t, __fmul_rn(__fsub_rn(1.f, __fmul_rn(t, t)), __fsub_rn(1.f, fast_exp(-sp))));
  return hmul(y, __float2half_rn(bracket));
}
__device__ __half hswish_gradient(__half y) {
  const float v = __half2float(y);
  if (!(v < 3.f)) return v >= 3.f ? h_1() : h_0();
  const float d = __fadd_rn(9.f, __fmul_rn(24.f, v));
  return d > 0.f ? __float2half_rn(__fdiv_rn(__fsqrt_rn(d), 6.f)) : h_0();
}
__device__ __half hsigmoid_gradient(__half y) {
  return (__hgt(y, h_0()) && __hlt(y, h_1())) ? __float2half_rn(__fdiv_rn(1.f, 6.f)) : h_0();
}

// Taken at x = y, exact where the output is positive and large, as for mish.
__device__ __half swish_gradient(__half y) {
  const float v = __half2float(y);
  const float s = 1.f / (1.f + fast_exp(-v));
  return __float2half_rn(__fadd_rn(s, __fmul_rn(__fmul_rn(v, s), __fsub_rn(1.f, s))));
}

using ValueFn = __half (*)(__half);

// Indexed by activation id; the free ids stay null and are never launched.
__device__ ValueFn activate_func[kActivationSlots] = {
    logistic_activate, relu_activate,  relie_activate, linear_activate, nullptr,         tanh_activate,
    nullptr,           leaky_activate, elu_activate,   loggy_activate,  nullptr,         hardtan_activate,
    nullptr,           relu6_activate, relu10_activate, mish_activate,
    swish_activate,           hswish_activate, hsigmoid_activate};
__device__ ValueFn gradient_func[kActivationSlots] = {
    logistic_gradient, relu_gradient,  relie_gradient, linear_gradient, nullptr,         tanh_gradient,
    nullptr,           leaky_gradient, elu_gradient,   loggy_gradient,  nullptr,         hardtan_gradient,
    nullptr,           relu6_gradient, relu10_gradient, mish_gradient,
    swish_gradient,           hswish_gradient, hsigmoid_gradient};

__global__ void activate_kernel(int type, __half* x, int n) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) x[i] = activate_func[type](x[i]);
}

__global__ void gradient_kernel(int type, const __half* x, int n, __half* delta) {
  const size_t i = ORVA_INDEX();
  if (i < (size_t)n) delta[i] = hmul(delta[i], gradient_func[type](x[i]));
}

// Flat over the elements: filters and batch items are not grid dimensions (y and z stop at
// 65535, and a connected layer has one element per filter).
__global__ void add_bias_activate_kernel(int type, size_t N, __half* output, const __half* bias, int n, int size) {
  const size_t i = ORVA_INDEX();
  if (i < N) output[i] = activate_func[type](hadd(output[i], bias[i / size % n]));
}

}  // namespace

namespace gpu {

void activate(void* handle, int type, Ftype* x, int n) {
  ORVA_LAUNCH(activate_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(type, (__half*)x, n);
  CHECK_LAUNCH();
}

void gradient(void* handle, int type, Ftype* x, int n, Ftype* delta) {
  ORVA_LAUNCH(gradient_kernel, ORVA_GRID(n), ORVA_BLOCK, 0, stream_of(handle))(type, (const __half*)x, n, (__half*)delta);
  CHECK_LAUNCH();
}

void add_bias_activate(void* handle, int type, Ftype* output, Ftype* bias, int batch, int n, int size) {
  const size_t N = (size_t)batch * n * size;
  ORVA_LAUNCH(add_bias_activate_kernel, ORVA_GRID(N), ORVA_BLOCK, 0, stream_of(handle))(
      type, N, (__half*)output, (const __half*)bias, n, size);
  CHECK_LAUNCH();
}

}  // namespace gpu
