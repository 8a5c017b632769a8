// Emulated CUDA: state shared by the launch engine and the runtime calls.
#pragma once
#include <cuda_runtime_api.h>

#include <cstddef>

namespace orva_emu {

// The runtime's per-thread error, returned and cleared by cudaGetLastError.
void set_last_error(cudaError_t e);
// Null (the default stream) or a stream made by cudaStreamCreate and not yet destroyed.
bool stream_valid(cudaStream_t s);
// True when [p, p + bytes) lies inside one live device allocation.
bool device_range(const void* p, size_t bytes);

}  // namespace orva_emu
