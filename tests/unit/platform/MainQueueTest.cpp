#include <thread>
#include <vector>

#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "simulator/machine/SimulatedMachine.h"
#include "tests/unit/platform/MainQueueContract.h"

namespace palaver {

namespace {

class SimulatedWorld {
 public:
  MainQueue& queue() { return queue_; }
  double now() const { return scheduler_.now(); }
  void inBackground(std::function<void()> work) {
    scheduler_.schedule(0, Timeline::Context::background, nullptr, std::move(work));
  }
  void serve() { EXPECT_THROW(queue_.run(), ProcessExit); }
  [[noreturn]] void stop() { scheduler_.exit(0); }

 private:
  Scheduler scheduler_;
  SimulatedMainQueue queue_{scheduler_};
};

// The threaded queue runs until the process ends, so an exception stops it, like a simulated exit.
class ThreadedWorld {
 public:
  ~ThreadedWorld() {
    for (auto& thread : threads_) thread.join();
  }

  MainQueue& queue() { return queue_; }
  double now() const { return clock_.nowMilliseconds(); }
  void inBackground(std::function<void()> work) { threads_.emplace_back(std::move(work)); }
  void serve() { EXPECT_THROW(queue_.run(), Stop); }
  [[noreturn]] void stop() { throw Stop(); }

 private:
  struct Stop {};

  SystemClock clock_;
  ThreadedMainQueue queue_;
  std::vector<std::thread> threads_;
};

}  // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, MainQueueContract, SimulatedWorld);
INSTANTIATE_TYPED_TEST_SUITE_P(Threaded, MainQueueContract, ThreadedWorld);

}  // namespace palaver
