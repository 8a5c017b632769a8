#include "orva/orva.h"

namespace ORVA {

Network::Network(int mode, int batch, int gpu_index) : _mode(mode), _nBatch(batch < 1 ? 1 : batch), _gpu_index(gpu_index) {
  if (create_handle(&_handle, gpu_index) != BackendKind::CUDA) _gpu_index = -1;
  ORVA_MSG(ALERT, "[ORVA v%d.%d]\n", ORVA_MAJOR_VERSION, ORVA_MINOR_VERSION);
}

Network::~Network() { destroy_handle(&_handle); }

}  // namespace ORVA
