// Tests the contract of a main queue, its semaphores and its time.
//
// A world adapts one implementation. The test's thread is the main thread. The world provides:
//   MainQueue& queue();
//   double now();                               milliseconds of the time in which the queue waits
//   void inBackground(std::function<void()>);   runs the work once off the main thread; any thread
//   void serve();                               serves the queue until stop()
//   void stop();                                call inside the last job of the test; may not return
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "platform/MainQueue.h"

namespace palaver {

template <typename World>
class MainQueueContract : public testing::Test {
 protected:
  MainQueue& queue() { return world_.queue(); }
  // Runs the jobs queued so far.
  void serveAll() {
    queue().async([this] { world_.stop(); });
    world_.serve();
  }

  World world_;
};

TYPED_TEST_SUITE_P(MainQueueContract);

TYPED_TEST_P(MainQueueContract, RunsJobsInOrder) {
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) this->queue().async([&order, i] { order.push_back(i); });
  EXPECT_TRUE(order.empty());
  this->serveAll();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TYPED_TEST_P(MainQueueContract, JobQueuedByJobRunsLast) {
  std::vector<char> order;
  this->queue().async([&] {
    this->queue().async([&] {
      order.push_back('c');
      this->world_.stop();
    });
    order.push_back('a');
  });
  this->queue().async([&] { order.push_back('b'); });
  this->world_.serve();
  EXPECT_EQ(order, (std::vector<char>{'a', 'b', 'c'}));
}

TYPED_TEST_P(MainQueueContract, BackgroundJobsRunOnMainThread) {
  bool backgroundIsCurrent = true, jobIsCurrent = false;
  this->world_.inBackground([&] {
    backgroundIsCurrent = this->queue().isCurrent();
    this->queue().async([&] {
      jobIsCurrent = this->queue().isCurrent();
      this->world_.stop();
    });
  });
  this->world_.serve();
  EXPECT_FALSE(backgroundIsCurrent);
  EXPECT_TRUE(jobIsCurrent);
  EXPECT_TRUE(this->queue().isCurrent());
}

TYPED_TEST_P(MainQueueContract, KeepsOrderPerSender) {
  std::vector<int> background, main;
  int left = 200;
  const auto done = [&] {
    if (--left == 0) this->world_.stop();
  };
  this->world_.inBackground([&] {
    for (int i = 0; i < 100; ++i)
      this->queue().async([&, i] {
        background.push_back(i);
        done();
      });
  });
  for (int i = 0; i < 100; ++i)
    this->queue().async([&, i] {
      main.push_back(i);
      done();
    });
  this->world_.serve();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(background[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(main[static_cast<std::size_t>(i)], i);
  }
}

TYPED_TEST_P(MainQueueContract, JobIsDestroyedOnMainThreadBeforeNext) {
  bool destroyedOnMain = false, destroyedInTime = false;
  this->world_.inBackground([&] {
    std::shared_ptr<int> held(new int(0), [&](int* number) {
      delete number;
      destroyedOnMain = this->queue().isCurrent();
    });
    this->queue().async([held = std::move(held)] {});
    this->queue().async([&] {
      destroyedInTime = destroyedOnMain;
      this->world_.stop();
    });
  });
  this->world_.serve();
  EXPECT_TRUE(destroyedInTime);
}

TYPED_TEST_P(MainQueueContract, SignalBeforeWaitIsKept) {
  const auto semaphore = this->queue().makeSemaphore();
  semaphore->signal();
  semaphore->signal();
  EXPECT_TRUE(semaphore->wait(0));
  EXPECT_TRUE(semaphore->wait(10000));
  EXPECT_FALSE(semaphore->wait(0));
}

TYPED_TEST_P(MainQueueContract, WaitWithoutSignalTimesOut) {
  const auto semaphore = this->queue().makeSemaphore();
  const double start = this->world_.now();
  EXPECT_FALSE(semaphore->wait(5));
  EXPECT_GE(this->world_.now() - start, 5);
}

TYPED_TEST_P(MainQueueContract, BackgroundSignalEndsWait) {
  const std::shared_ptr<Semaphore> semaphore = this->queue().makeSemaphore();
  this->world_.inBackground([semaphore] { semaphore->signal(); });
  EXPECT_TRUE(semaphore->wait(10000));
}

TYPED_TEST_P(MainQueueContract, WaitAndSliceRunNoQueuedJobs) {
  bool ran = false;
  this->queue().async([&] { ran = true; });
  const auto semaphore = this->queue().makeSemaphore();
  EXPECT_FALSE(semaphore->wait(2));
  this->queue().runSlice(2);
  EXPECT_FALSE(ran);
  this->serveAll();
  EXPECT_TRUE(ran);
}

TYPED_TEST_P(MainQueueContract, JobMayWaitWhileOthersStayQueued) {
  std::vector<char> order;
  const std::shared_ptr<Semaphore> semaphore = this->queue().makeSemaphore();
  this->queue().async([&] {
    this->world_.inBackground([semaphore] { semaphore->signal(); });
    while (!semaphore->wait(20)) this->queue().runSlice(20);
    order.push_back('a');
  });
  this->queue().async([&] { order.push_back('b'); });
  this->serveAll();
  EXPECT_EQ(order, (std::vector<char>{'a', 'b'}));
}

REGISTER_TYPED_TEST_SUITE_P(MainQueueContract, RunsJobsInOrder, JobQueuedByJobRunsLast,
                            BackgroundJobsRunOnMainThread, KeepsOrderPerSender,
                            JobIsDestroyedOnMainThreadBeforeNext, SignalBeforeWaitIsKept,
                            WaitWithoutSignalTimesOut, BackgroundSignalEndsWait, WaitAndSliceRunNoQueuedJobs,
                            JobMayWaitWhileOthersStayQueued);

}  // namespace palaver
