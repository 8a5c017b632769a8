// Half-precision storage type and the exact host conversions.
#pragma once
#include <cstddef>
#include <cstdint>

// IEEE binary16 bit pattern. The host does no arithmetic on it: it converts to float,
// computes and converts back. Device code reinterprets arrays of it as the toolkit's half.
struct _half {
  unsigned short __x;
};
typedef _half Ftype;

static_assert(sizeof(_half) == 2, "tensors are packed two bytes per element");

static const _half fp_INF = {0x7C00};
static const _half fp_NINF = {0xFC00};
static const _half fp_0 = {0x0000};
static const _half fp_0_01 = {0x211F};
static const _half fp_0_1 = {0x2E66};
static const _half fp_0_5 = {0x3800};
static const _half fp_1 = {0x3C00};
static const _half fp_1N = {0xBC00};
static const _half fp_2 = {0x4000};
static const _half fp_6 = {0x4600};
static const _half fp_10 = {0x4900};

// Table conversions: exact, independent of hardware, ties rounded away from zero.
unsigned short _float2half_true(float f);
float _half2float_true(unsigned short h);

unsigned short float2half_cpu(float f);
float half2float_cpu(unsigned short h);
// Ascending narrowing and descending widening, so both work in place on one buffer.
void float2half_cpu(const float* src, _half* dst, size_t n);
void half2float_cpu(float* dst, const _half* src, size_t n);

// Buffer conversions on the backend of the given context (CUDA kernel or host loop),
// asynchronous on its stream.
void float2half_gpu(void* handle, const float* src, _half* dst, size_t n);
void half2float_gpu(void* handle, float* dst, const _half* src, size_t n);
