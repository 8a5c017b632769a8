// Emulated CUDA: the library calls the backend makes. cuBLAS's one product is answered by a
// plain column-major reference with cuBLAS's argument checks, so the mapping of the
// project's row-major products onto the column-major call is exercised; cuRAND draws from a
// host generator. cuDNN is in cudnn.cpp.
#include "emu/cuda_emu.h"  // first: it settles the qualifiers the toolkit's headers use

#include <cublas_v2.h>
#include <curand.h>

#include <algorithm>
#include <random>

#include "emu/emu_state.h"

struct cublasContext {
  cudaStream_t stream = nullptr;
};
struct curandGenerator_st {
  std::mt19937_64 engine{0};
};

using orva_emu::device_range;
using orva_emu::fault;

// --- cuBLAS ----------------------------------------------------------------------------------

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
  *handle = new cublasContext;
  return CUBLAS_STATUS_SUCCESS;
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
  delete handle;
  return CUBLAS_STATUS_SUCCESS;
}

cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t stream) {
  if (!handle) return CUBLAS_STATUS_NOT_INITIALIZED;
  handle->stream = stream;
  return CUBLAS_STATUS_SUCCESS;
}

cublasStatus_t cublasSetMathMode(cublasHandle_t handle, cublasMath_t) {
  return handle ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_NOT_INITIALIZED;
}

const char* cublasGetStatusString(cublasStatus_t status) {
  switch (status) {
    case CUBLAS_STATUS_SUCCESS: return "CUBLAS_STATUS_SUCCESS";
    case CUBLAS_STATUS_NOT_INITIALIZED: return "CUBLAS_STATUS_NOT_INITIALIZED";
    case CUBLAS_STATUS_INVALID_VALUE: return "CUBLAS_STATUS_INVALID_VALUE";
    case CUBLAS_STATUS_NOT_SUPPORTED: return "CUBLAS_STATUS_NOT_SUPPORTED";
    default: return "CUBLAS_STATUS_INTERNAL_ERROR";
  }
}

namespace {

size_t element_bytes(cudaDataType t) { return t == CUDA_R_16F ? 2 : t == CUDA_R_32F ? 4 : 0; }

float load(const void* p, cudaDataType t, size_t i) {
  return t == CUDA_R_16F ? __half2float(static_cast<const __half*>(p)[i]) : static_cast<const float*>(p)[i];
}

void store(void* p, cudaDataType t, size_t i, float v) {
  if (t == CUDA_R_16F)
    static_cast<__half*>(p)[i] = __float2half_rn(v);
  else
    static_cast<float*>(p)[i] = v;
}

// A column-major rows x cols matrix with leading dimension ld lies inside one allocation.
bool matrix_inside(const void* p, cudaDataType t, int rows, int cols, int ld) {
  if (rows == 0 || cols == 0) return true;
  return device_range(p, ((size_t)(cols - 1) * ld + rows) * element_bytes(t));
}

}  // namespace

cublasStatus_t cublasSgemmEx(cublasHandle_t handle, cublasOperation_t transa, cublasOperation_t transb, int m, int n,
                             int k, const float* alpha, const void* A, cudaDataType Atype, int lda, const void* B,
                             cudaDataType Btype, int ldb, const float* beta, void* C, cudaDataType Ctype, int ldc) {
  if (!handle) return CUBLAS_STATUS_NOT_INITIALIZED;
  const bool ta = transa != CUBLAS_OP_N, tb = transb != CUBLAS_OP_N;
  const int a_rows = ta ? k : m, a_cols = ta ? m : k, b_rows = tb ? n : k, b_cols = tb ? k : n;
  const char* bad = nullptr;
  if (m < 0 || n < 0 || k < 0)
    bad = "negative size";
  else if (lda < std::max(1, a_rows) || ldb < std::max(1, b_rows) || ldc < std::max(1, m))
    bad = "leading dimension below the rows it holds";
  else if (!element_bytes(Atype) || !element_bytes(Btype) || !element_bytes(Ctype))
    bad = "data type other than 16- or 32-bit float";
  if (bad) {
    fault("cublasSgemmEx(%c, %c, m=%d, n=%d, k=%d, lda=%d, ldb=%d, ldc=%d): %s", ta ? 'T' : 'N', tb ? 'T' : 'N', m, n,
          k, lda, ldb, ldc, bad);
    return CUBLAS_STATUS_INVALID_VALUE;
  }
  if (m == 0 || n == 0) return CUBLAS_STATUS_SUCCESS;
  // As in BLAS: A and B are not read when alpha is 0 or k is 0, C is not read when beta is 0.
  const bool use_ab = *alpha != 0.f && k > 0, use_c = *beta != 0.f;
  if ((use_ab && (!matrix_inside(A, Atype, a_rows, a_cols, lda) || !matrix_inside(B, Btype, b_rows, b_cols, ldb))) ||
      !matrix_inside(C, Ctype, m, n, ldc)) {
    fault("cublasSgemmEx(%c, %c, m=%d, n=%d, k=%d, lda=%d, ldb=%d, ldc=%d): a matrix reaches past its allocation",
          ta ? 'T' : 'N', tb ? 'T' : 'N', m, n, k, lda, ldb, ldc);
    return CUBLAS_STATUS_INVALID_VALUE;
  }
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < m; ++i) {
      float acc = 0.f;
      if (use_ab)
        for (int l = 0; l < k; ++l) {
          const float a = load(A, Atype, ta ? (size_t)i * lda + l : (size_t)l * lda + i);
          const float b = load(B, Btype, tb ? (size_t)l * ldb + j : (size_t)j * ldb + l);
          acc += a * b;
        }
      float c = *alpha * acc;
      if (use_c) c += *beta * load(C, Ctype, (size_t)j * ldc + i);
      store(C, Ctype, (size_t)j * ldc + i, c);
    }
  return CUBLAS_STATUS_SUCCESS;
}

// --- cuRAND ----------------------------------------------------------------------------------

curandStatus_t curandCreateGenerator(curandGenerator_t* generator, curandRngType_t) {
  *generator = new curandGenerator_st;
  return CURAND_STATUS_SUCCESS;
}

curandStatus_t curandDestroyGenerator(curandGenerator_t generator) {
  delete generator;
  return CURAND_STATUS_SUCCESS;
}

curandStatus_t curandSetPseudoRandomGeneratorSeed(curandGenerator_t generator, unsigned long long seed) {
  generator->engine.seed(seed);
  return CURAND_STATUS_SUCCESS;
}

// Uniform in (0, 1], as cuRAND's uniform distribution.
curandStatus_t curandGenerateUniform(curandGenerator_t generator, float* out, size_t num) {
  if (num && !device_range(out, num * sizeof(float))) {
    fault("curandGenerateUniform(%p, %zu): not inside one device allocation", (void*)out, num);
    return CURAND_STATUS_LAUNCH_FAILURE;
  }
  for (size_t i = 0; i < num; ++i) out[i] = (float)((generator->engine() >> 40) + 1) * 0x1p-24f;
  return CURAND_STATUS_SUCCESS;
}
