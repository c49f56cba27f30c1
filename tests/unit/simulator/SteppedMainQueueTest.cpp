// Tests the queue with the test as the main thread. Another thread advances the time.
#include "simulator/stepped/SteppedMainQueue.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "platform/posix/ThreadedMainQueue.h"

namespace palaver {

namespace {

using End = SteppedTimeline::End;

class SteppedMainQueueTest : public testing::Test {
 protected:
  ~SteppedMainQueueTest() override {
    if (other_.joinable()) other_.join();
  }

  // Runs the work on another thread while this one waits.
  void meanwhile(std::function<void()> work) { other_ = std::thread(std::move(work)); }
  // Advances the time to the next due job. Waits until one is scheduled.
  void awaitNext() {
    while (!timeline_.nextDue()) std::this_thread::yield();
    timeline_.runNext(*timeline_.nextDue(), End::included);
  }
  void callBack(std::function<void()> callback) {
    timeline_.schedule(0, Timeline::Context::mainThreadCallback, nullptr, std::move(callback));
    timeline_.runNext(timeline_.now(), End::included);
  }

  SteppedTimeline timeline_;
  ThreadedMainQueue threads_;
  SteppedMainQueue queue_{threads_, timeline_};

 private:
  std::thread other_;
};

TEST_F(SteppedMainQueueTest, SemaphoreTimesOutOnTimeline) {
  const auto semaphore = queue_.makeSemaphore();
  meanwhile([this] { awaitNext(); });
  EXPECT_FALSE(semaphore->wait(20));
  EXPECT_EQ(timeline_.now(), 20);
}

TEST_F(SteppedMainQueueTest, SignalEndsWaitWithoutTime) {
  const auto semaphore = queue_.makeSemaphore();
  meanwhile([&] { semaphore->signal(); });
  EXPECT_TRUE(semaphore->wait(20));
  EXPECT_EQ(timeline_.now(), 0);
}

TEST_F(SteppedMainQueueTest, TimeoutOfEarlierWaitEndsNoLaterOne) {
  const auto semaphore = queue_.makeSemaphore();
  semaphore->signal();
  EXPECT_TRUE(semaphore->wait(20));
  meanwhile([&] {
    awaitNext();  // the timeout of the first wait
    awaitNext();
  });
  EXPECT_FALSE(semaphore->wait(30));
  EXPECT_GE(timeline_.now(), 30);  // later when the first timeout was due before the second wait began
}

TEST_F(SteppedMainQueueTest, EverySignalEndsOneWait) {
  const auto semaphore = queue_.makeSemaphore();
  semaphore->signal();
  semaphore->signal();
  EXPECT_TRUE(semaphore->wait(20));
  EXPECT_TRUE(semaphore->wait(20));
  meanwhile([this] {
    for (int timeouts = 0; timeouts < 3; ++timeouts) awaitNext();
  });
  EXPECT_FALSE(semaphore->wait(20));
}

TEST_F(SteppedMainQueueTest, SliceWithoutCallbackTakesItsTime) {
  meanwhile([this] { awaitNext(); });
  queue_.runSlice(50);
  EXPECT_EQ(timeline_.now(), 50);
}

TEST_F(SteppedMainQueueTest, SliceDeliversOneCallback) {
  int callbacks = 0;
  callBack([&] { ++callbacks; });
  callBack([&] { ++callbacks; });
  queue_.runSlice(50);
  EXPECT_EQ(callbacks, 1);
  queue_.runSlice(50);
  EXPECT_EQ(callbacks, 2);
  EXPECT_EQ(timeline_.now(), 0);
}

TEST_F(SteppedMainQueueTest, SliceDeliversCallbackArrivingMeanwhile) {
  bool wasMain = false;
  meanwhile([&] { callBack([&] { wasMain = queue_.isCurrent(); }); });
  queue_.runSlice(50);
  EXPECT_TRUE(wasMain);
  EXPECT_EQ(timeline_.now(), 0);
}

TEST_F(SteppedMainQueueTest, ServedQueueRunsCallbacksAndJobsInOrder) {
  struct Stop {};
  std::vector<int> order;
  queue_.async([&] { order.push_back(1); });
  callBack([&] { order.push_back(2); });
  queue_.async([&] { order.push_back(3); });
  queue_.async([] { throw Stop(); });
  EXPECT_THROW(queue_.run(), Stop);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(SteppedMainQueueTest, SliceInsideJobDeliversNothingIfDisabled) {
  struct Stop {};
  queue_.setSlicesDeliverInsideJobs(false);
  bool deliveredInside = false, delivered = false;
  queue_.async([&] {
    callBack([&] { delivered = true; });
    queue_.runSlice(50);
    deliveredInside = delivered;
    queue_.async([] { throw Stop(); });
  });
  EXPECT_THROW(queue_.run(), Stop);
  EXPECT_FALSE(deliveredInside);
  EXPECT_TRUE(delivered);
}

}  // namespace

}  // namespace palaver
