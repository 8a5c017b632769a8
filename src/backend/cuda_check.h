// Status checks for the CUDA backend: every call of the runtime and the libraries.
#pragma once
#ifndef ORVA_CUDA_EMULATED
#define ORVA_CUDA_EMULATED 0
#endif
#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>
#include <curand.h>

#include <cstdlib>

#include "backend/device_error.h"

#include "orva/util.h"

namespace ORVA {
inline const char* status_text(cudaError_t s) { return cudaGetErrorString(s); }
inline const char* status_text(cudnnStatus_t s) { return cudnnGetErrorString(s); }
inline const char* status_text(cublasStatus_t s) { return cublasGetStatusString(s); }
inline const char* status_text(curandStatus_t) { return "cuRAND failure"; }
inline bool status_ok(cudaError_t s) { return s == cudaSuccess; }
inline bool status_ok(cudnnStatus_t s) { return s == CUDNN_STATUS_SUCCESS; }
inline bool status_ok(cublasStatus_t s) { return s == CUBLAS_STATUS_SUCCESS; }
inline bool status_ok(curandStatus_t s) { return s == CURAND_STATUS_SUCCESS; }
}  // namespace ORVA

// Every build checks: a failed call throws ORVA::DeviceError naming the call and its status
// (the network adds the layer), so no layer goes on with an output that was never written.
#define CHECK_CUDA(call)                                                                    \
  do {                                                                                      \
    auto _status = (call);                                                                  \
    if (!ORVA::status_ok(_status)) ORVA::throw_device_error(#call, (int)_status, ORVA::status_text(_status)); \
  } while (0)
// For calls that release resources, which run in destructors: the failure is reported only.
#define REPORT_CUDA(call)                                                                    \
  do {                                                                                       \
    auto _status = (call);                                                                   \
    if (!ORVA::status_ok(_status)) ORVA::report_device_error(#call, (int)_status, ORVA::status_text(_status)); \
  } while (0)
// After a kernel launch: catches bad launch shapes at once.
#define CHECK_LAUNCH() CHECK_CUDA(cudaGetLastError())

// Every kernel launch in the project: ORVA_LAUNCH(kernel, grid, block, shmem, stream)(args...).
// Under nvcc it is the triple-chevron launch; the emulated build (src/emu/cuda_emu.h, included
// ahead of every CUDA source there) routes it to its emulator.
#if !ORVA_CUDA_EMULATED
#define ORVA_LAUNCH(kernel, grid, block, shmem, stream) kernel<<<(grid), (block), (shmem), (stream)>>>
#endif

// Element-wise launch shape and flat index over the two-dimensional grid.
#define ORVA_BLOCK 512
#define ORVA_GRID(n) gridsize3(n)
#define ORVA_INDEX() ((blockIdx.x + (size_t)blockIdx.y * gridDim.x) * blockDim.x + threadIdx.x)

#include "orva/cuda.h"
inline dim3 gridsize3(size_t n) {
  dim3_t g = cuda_gridsize(n);
  return dim3(g.x, g.y, g.z);
}
inline cudaStream_t stream_of(void* handle) { return static_cast<CudaHandle*>(handle)->stream; }
inline cublasHandle_t cublas_of(void* handle) { return static_cast<CudaHandle*>(handle)->cublas; }
inline cudnnHandle_t cudnn_of(void* handle) { return static_cast<CudaHandle*>(handle)->cudnn; }
