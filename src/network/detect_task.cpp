// Detection on the task worker: letterboxed frames in, one detection list per frame out.
#include <sched.h>

#include <algorithm>
#include <vector>

#include "orva/image.h"
#include "orva/networks.h"
#include "orva/orva.h"
#include "orva/util.h"

namespace ORVA {

namespace {

struct DetectTaskInput {
  unsigned int id;
  unsigned int tick;
  cv::Mat img;    // letterboxed to the network input
  cv::Size size;  // the frame size the boxes are mapped back to
};

}  // namespace

DetectTask::DetectTask(Network* net, bool flag) : NetworkTask(net, flag) {}

DetectTask::~DetectTask() {
  // Stopped here, not in the base destructor: by then this object's _loopTask is gone while
  // the worker may still be inside it.
  stop();
  while (!_qinput.empty()) {
    delete static_cast<DetectTaskInput*>(_qinput.front());
    _qinput.pop();
  }
  while (!_qoutput.empty()) {
    delete static_cast<DetectTaskResult*>(_qoutput.front());
    _qoutput.pop();
  }
}

bool DetectTask::process(TaskInput& in) {
  // Refused here rather than failing later on the worker, where nobody could be told.
  if (!in.img.empty() && in.img.channels() != _net->iC) {
    ORVA_ERROR("frame has %d channels, the network takes %d", in.img.channels(), _net->iC);
    return false;
  }
  const size_t bound = 2 * (size_t)_net->getBatch();
  {
    // Checked apart from the push so that a dropped frame costs no resize; concurrent
    // callers may overshoot the bound by a frame each, which is harmless.
    std::lock_guard<std::mutex> lock(_imutex);
    if (_qinput.size() >= bound) return false;
  }
  if (in.img.empty()) return false;
  // A depth the letterbox refuses throws from here, on the caller's thread.
  std::unique_ptr<DetectTaskInput> item(new DetectTaskInput{in.id, in.tick, cv::Mat(), cv::Size(_net->iW, _net->iH)});
  resize_ratio(in.img, item->img, &item->size, 0.0f, 128);
  if (item->img.empty()) return false;
  std::lock_guard<std::mutex> lock(_imutex);
  _qinput.push(item.release());
  _icv.notify_one();
  return true;
}

bool DetectTask::getResult(DetectTaskResult& out) {
  DetectTaskResult* r;
  {
    std::lock_guard<std::mutex> lock(_omutex);
    if (_qoutput.empty()) return false;
    r = static_cast<DetectTaskResult*>(_qoutput.front());
    _qoutput.pop();
  }
  out = std::move(*r);
  delete r;
  return true;
}

void DetectTask::_loopTask() {
  DetectNetwork* net = static_cast<DetectNetwork*>(_net);
  const int B = net->getBatch();
  std::vector<DetectObjList> lists(B);
  std::vector<cv::Mat> frames(B);
  std::vector<cv::Size> sizes(B);
  std::vector<unsigned int> keys(B);
  std::vector<DetectTaskInput*> items(B);
  while (_run) {
    // Producers get the lock first when they are already waiting for it.
    sched_yield();
    int k = 0;
    {
      std::unique_lock<std::mutex> lock(_imutex);
      _icv.wait(lock, [this] { return !_run || !_qinput.empty(); });
      if (!_run) break;
      for (; k < B && !_qinput.empty(); ++k) {
        items[k] = static_cast<DetectTaskInput*>(_qinput.front());
        _qinput.pop();
      }
    }
    for (int i = 0; i < k; ++i) {
      frames[i] = items[i]->img;
      sizes[i] = items[i]->size;
      keys[i] = items[i]->id;
    }
    net->detect(lists.data(), frames.data(), sizes.data(), keys.data(), k);
    for (int i = 0; i < k; ++i) {
      DetectTaskResult* r = new DetectTaskResult{items[i]->id, items[i]->tick, lists[i]};
      {
        std::lock_guard<std::mutex> lock(_omutex);
        _qoutput.push(r);
      }
      _ocv.notify_one();
      delete items[i];
      frames[i].release();
    }
  }
  // Frames still waiting are discarded: a stopped task answers nothing it has not started.
  std::lock_guard<std::mutex> lock(_imutex);
  while (!_qinput.empty()) {
    delete static_cast<DetectTaskInput*>(_qinput.front());
    _qinput.pop();
  }
}

}  // namespace ORVA
