// Half-precision storage type and the exact host conversions.
#pragma once
#include "orva/export.h"
#include <cstddef>
#include <cstdint>

#if defined(__CUDACC__)
#define ORVA_HOST_DEVICE __host__ __device__
#else
#define ORVA_HOST_DEVICE
#endif

ORVA_API_BEGIN

// The raw 16-bit record of a half, laid out as the device toolkit's __half_raw, for moving
// bits between the toolkit's half and ours without arithmetic.
struct _half_raw {
  unsigned short x;
};

// IEEE binary16 bit pattern. The host does no arithmetic on it: it converts to float,
// computes and converts back. Device code reinterprets arrays of it as the toolkit's half.
// It stays trivially copyable, so arrays of it can be copied and cleared bytewise.
struct _half {
  unsigned short __x;

  _half() = default;
  // From the bit pattern itself, as the constants below and the host conversions build it.
  constexpr ORVA_HOST_DEVICE _half(unsigned short bits) : __x(bits) {}
  constexpr ORVA_HOST_DEVICE _half(const _half_raw& r) : __x(r.x) {}
  ORVA_HOST_DEVICE _half& operator=(const _half_raw& r) {
    __x = r.x;
    return *this;
  }
  constexpr ORVA_HOST_DEVICE operator _half_raw() const { return _half_raw{__x}; }
};
typedef _half Ftype;

static_assert(sizeof(_half) == 2, "tensors are packed two bytes per element");
static_assert(sizeof(_half_raw) == 2, "the raw record is the bare 16 bits");

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

ORVA_API_END
