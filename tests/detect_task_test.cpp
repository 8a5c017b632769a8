// The task worker and the asynchronous detector: queue bound, order, shutdown, and a load of
// four producers. scripts/tsan.sh runs this file under ThreadSanitizer.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "orva/orva.h"

namespace {

using Clock = std::chrono::steady_clock;

// The smallest useful worker: echoes (id, tick) of each input in batches of two.
class EchoTask : public ORVA::NetworkTask {
 public:
  EchoTask() : NetworkTask(nullptr) {}
  ~EchoTask() override {
    stop();
    while (!_qinput.empty()) delete static_cast<ORVA::TaskInput*>(_qinput.front()), _qinput.pop();
    while (!_qoutput.empty()) delete static_cast<ORVA::TaskInput*>(_qoutput.front()), _qoutput.pop();
  }
  bool process(ORVA::TaskInput& in) override {
    std::lock_guard<std::mutex> lock(_imutex);
    _qinput.push(new ORVA::TaskInput(in));
    _icv.notify_one();
    return true;
  }
  bool get(std::pair<unsigned, unsigned>& out) {
    std::lock_guard<std::mutex> lock(_omutex);
    if (_qoutput.empty()) return false;
    auto* r = static_cast<ORVA::TaskInput*>(_qoutput.front());
    _qoutput.pop();
    out = {r->id, r->tick};
    delete r;
    return true;
  }
  int passes = 0;  // read by the owner only after stop

 protected:
  void _loopTask() override {
    while (_run) {
      std::vector<void*> items;
      {
        std::unique_lock<std::mutex> lock(_imutex);
        _icv.wait(lock, [this] { return !_run || !_qinput.empty(); });
        if (!_run) break;
        for (int i = 0; i < 2 && !_qinput.empty(); ++i) items.push_back(_qinput.front()), _qinput.pop();
      }
      ++passes;
      for (void* p : items) {
        std::lock_guard<std::mutex> lock(_omutex);
        _qoutput.push(p);
        _ocv.notify_one();
      }
    }
  }
};

// Polls until `n` results arrived or five seconds passed.
template <typename Get, typename R>
std::vector<R> collect(Get get, size_t n, R r) {
  std::vector<R> out;
  for (auto end = Clock::now() + std::chrono::seconds(5); out.size() < n && Clock::now() < end;)
    if (get(r)) out.push_back(r); else std::this_thread::yield();
  return out;
}

TEST(NetworkTask, RunStopAndInputsQueuedWhileStopped) {
  {
    ORVA::NetworkTask base(nullptr, true);
    ORVA::TaskInput in{1, 2, cv::Mat()};
    EXPECT_FALSE(base.process(in));
    EXPECT_TRUE(base.run());
    EXPECT_TRUE(base.run());
    base.stop();
    base.stop();
  }  // destroyed running or not: nothing to join twice

  EchoTask task;
  for (unsigned t = 0; t < 5; ++t) {
    ORVA::TaskInput in{7, t, cv::Mat()};
    task.process(in);
  }
  EXPECT_TRUE(task.run());
  EXPECT_TRUE(task.run());  // still one worker: results stay in order
  auto get = [&](std::pair<unsigned, unsigned>& r) { return task.get(r); };
  auto got = collect(get, 5, std::pair<unsigned, unsigned>());
  ASSERT_EQ(got.size(), 5u);
  for (unsigned t = 0; t < 5; ++t) EXPECT_EQ(got[t], std::make_pair(7u, t));
  task.stop();
  EXPECT_EQ(task.passes, 3);  // batches of two: 2 + 2 + 1

  // An idle worker must wake on every stop; a lost wakeup hangs here.
  for (int i = 0; i < 300; ++i) {
    task.run();
    if (i % 2) std::this_thread::yield();
    task.stop();
  }
  // Queued while stopped and never run again: released by the destructor.
  ORVA::TaskInput in{9, 9, cv::Mat(4, 4, CV_8UC3)};
  task.process(in);
}

}  // namespace
