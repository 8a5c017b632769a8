// The network, task and worker classes.
#pragma once
#include "orva/cuda.h"
#include "orva/data.h"
#include "orva/float16.h"
#include "orva/util.h"

#define ORVA_MAJOR_VERSION 4
#define ORVA_MINOR_VERSION 0

namespace ORVA {

class Network {
 public:
  // gpu_index >= 0 asks for that CUDA device; a negative index runs on the host. A CUDA
  // request that can't be served falls back to the host with one WARNING line.
  Network(int mode, int batch, int gpu_index);
  virtual ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  int getMode() const { return _mode; }
  int getBatch() const { return _nBatch; }
  void* getHandle() { return &_handle; }
  BackendKind getBackend() const { return handle_kind(&_handle); }

 protected:
  int _mode;
  int _nBatch;
  int _gpu_index;
  CudaHandle _handle;
};

}  // namespace ORVA
