// The worker thread shared by the asynchronous tasks.
#include "orva/orva.h"

namespace ORVA {

NetworkTask::NetworkTask(Network* net, bool) : _net(net) {}

NetworkTask::~NetworkTask() { stop(); }

bool NetworkTask::run() {
  if (!_thread) {
    _run = true;
    _thread.reset(new std::thread([this] {
      // A new thread starts on device 0; the network's tensors and stream live on its own.
      if (_net) cuda_set_device(_net->getGpuIndex());
      _loopTask();
    }));
  }
  return true;
}

void NetworkTask::stop() {
  if (!_thread) return;
  {
    // Storing under the lock closes the gap between the worker's test of _run and its wait:
    // a notify landing in that gap would be lost and the join below would never return.
    std::lock_guard<std::mutex> lock(_imutex);
    _run = false;
  }
  _icv.notify_one();
  _thread->join();
  _thread.reset();
}

}  // namespace ORVA
