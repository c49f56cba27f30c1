// Tests the macOS main queue on the real run loop and the real dispatch main queue.
#include "platform/macos/RunLoopMainQueue.h"

#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/posix/POSIXProcess.h"
#include "platform/posix/SystemClock.h"
#include "tests/apple/StoppableMainQueue.h"
#include "tests/unit/platform/MainQueueContract.h"

// Replaces the Objective-C runtime: numbers the autorelease pools of this thread.
namespace {

thread_local std::vector<std::uintptr_t> livingPools;
thread_local std::uintptr_t poolsMade = 0;

}  // namespace

extern "C" void* objc_autoreleasePoolPush() {
  livingPools.push_back(++poolsMade);
  return reinterpret_cast<void*>(poolsMade);
}

extern "C" void objc_autoreleasePoolPop(void* pool) {
  EXPECT_FALSE(livingPools.empty());
  EXPECT_EQ(livingPools.back(), reinterpret_cast<std::uintptr_t>(pool));
  livingPools.pop_back();
}

namespace palaver {
namespace {

class RunLoopWorld {
 public:
  ~RunLoopWorld() {
    for (auto& thread : threads_) thread.join();
  }

  MainQueue& queue() { return queue_; }
  double now() const { return clock_.nowMilliseconds(); }
  void inBackground(std::function<void()> work) { threads_.emplace_back(std::move(work)); }
  void serve() { queue_.serveUntilStopped(); }
  void stop() { queue_.stop(); }

 private:
  SystemClock clock_;
  StoppableMainQueue queue_;
  std::vector<std::thread> threads_;
};

// Number of slices, not a time, after which a test concludes that slices deliver nothing.
constexpr int slicesAtMost = 100000;

class RunLoopMainQueueTest : public testing::Test {
 protected:
  // Queues an answer on the dispatch main queue from another thread, as a recognizer does. It is queued on
  // return.
  static void answer(std::function<void()> handler) {
    auto* const held = new std::function<void()>(std::move(handler));
    std::thread([held] {
      dispatch_async(dispatch_get_main_queue(), ^{
        (*held)();
        delete held;
      });
    }).join();
  }
  // Runs slices until the flag is set. Returns false after slicesAtMost.
  bool sliceUntil(const bool& flag) {
    for (int slice = 0; slice < slicesAtMost && !flag; ++slice) queue_.runSlice(20);
    return flag;
  }
  // Runs the jobs queued so far.
  void serveAll() {
    queue_.async([this] { queue_.stop(); });
    queue_.serveUntilStopped();
  }

  StoppableMainQueue queue_;
};

TEST_F(RunLoopMainQueueTest, SliceInsideJobDeliversAnswer) {
  bool answered = false, heardInside = false, heardOnMain = false;
  queue_.async([&] {
    answer([&] {
      answered = true;
      heardOnMain = queue_.isCurrent();
    });
    EXPECT_FALSE(answered);
    heardInside = sliceUntil(answered);
  });
  serveAll();
  EXPECT_TRUE(heardInside);
  EXPECT_TRUE(heardOnMain);
}

TEST_F(RunLoopMainQueueTest, AnswerIsDeliveredBetweenJobs) {
  answer([&] { queue_.stop(); });
  queue_.serveUntilStopped();
}

TEST_F(RunLoopMainQueueTest, SliceInsideMainQueueBlockDeliversNothing) {
  // This is why jobs are not blocks of the main queue.
  bool answered = false, heardInside = true;
  answer([&] {
    answer([&] {
      answered = true;
      queue_.stop();
    });
    for (int slice = 0; slice < 20; ++slice) queue_.runSlice(1);
    heardInside = answered;
  });
  queue_.serveUntilStopped();
  EXPECT_FALSE(heardInside);
  EXPECT_TRUE(answered);
}

TEST_F(RunLoopMainQueueTest, SliceNeverRunsJobs) {
  int answers = 0, jobs = 0, jobsInside = -1;
  queue_.async([&] {
    for (int i = 0; i < 50; ++i) {
      queue_.async([&] { ++jobs; });
      answer([&] { ++answers; });
      const int before = answers;
      for (int slice = 0; slice < slicesAtMost && answers == before; ++slice) queue_.runSlice(20);
    }
    queue_.runSlice(5);
    jobsInside = jobs;
  });
  serveAll();
  EXPECT_EQ(answers, 50);
  EXPECT_EQ(jobsInside, 0);
  EXPECT_EQ(jobs, 50);
}

TEST_F(RunLoopMainQueueTest, JobsRunningSlicesNeverOverlap) {
  std::vector<int> order;
  bool isInside = false, overlapped = false;
  for (int i = 0; i < 20; ++i)
    queue_.async([&, i] {
      overlapped = overlapped || isInside;
      isInside = true;
      bool answered = false;
      // An answer may queue a job, which runs after all others.
      answer([&] {
        answered = true;
        queue_.async([&, i] { order.push_back(100 + i); });
      });
      EXPECT_TRUE(sliceUntil(answered));
      order.push_back(i);
      isInside = false;
    });
  serveAll();
  serveAll();  // the jobs queued by the answers
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(order.size(), 40U);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(order[static_cast<std::size_t>(20 + i)], 100 + i);
  }
}

TEST_F(RunLoopMainQueueTest, JobQueuedDuringSliceRuns) {
  // A slice consumes the wake-up of the jobs that it does not run.
  for (int i = 0; i < 20; ++i) {
    queue_.async([&] {
      std::thread([&] { queue_.async([&] { queue_.stop(); }); }).join();
      bool answered = false;
      answer([&] { answered = true; });
      EXPECT_TRUE(sliceUntil(answered));
      queue_.runSlice(0);
    });
    queue_.serveUntilStopped();
  }
}

TEST_F(RunLoopMainQueueTest, SlicesBeforeServingDeliverAnswersAndKeepJobs) {
  bool ran = false, answered = false;
  queue_.async([&] { ran = true; });
  answer([&] { answered = true; });
  EXPECT_TRUE(sliceUntil(answered));
  EXPECT_FALSE(ran);
  serveAll();
  EXPECT_TRUE(ran);
}

TEST_F(RunLoopMainQueueTest, IdleSliceTakesItsFullTime) {
  SystemClock clock;
  const double start = clock.nowMilliseconds();
  queue_.runSlice(5);
  EXPECT_GE(clock.nowMilliseconds() - start, 4);
  queue_.runSlice(0);
  queue_.runSlice(-1);
  // Also without service of the dispatch main queue, where nothing can be delivered.
  bool waited = false;
  answer([&] {
    const double inside = clock.nowMilliseconds();
    queue_.runSlice(5);
    waited = clock.nowMilliseconds() - inside >= 4;
    queue_.stop();
  });
  queue_.serveUntilStopped();
  EXPECT_TRUE(waited);
}

TEST_F(RunLoopMainQueueTest, AnswerEndsSliceImmediately) {
  // A slice that ignores the answer would block for years.
  bool answered = false;
  answer([&] { answered = true; });
  while (!answered) queue_.runSlice(1e11);
  std::thread late;
  answered = false;
  queue_.async([&] {
    late = std::thread([&] { answer([&] { answered = true; }); });
    while (!answered) queue_.runSlice(1e11);
  });
  serveAll();
  late.join();
  EXPECT_TRUE(answered);
}

TEST_F(RunLoopMainQueueTest, RunLoopStopDoesNotStopQueue) {
  int jobs = 0;
  for (int i = 0; i < 3; ++i)
    queue_.async([&] {
      ++jobs;
      CFRunLoopStop(CFRunLoopGetMain());
    });
  serveAll();
  EXPECT_EQ(jobs, 3);
}

TEST_F(RunLoopMainQueueTest, JobsSlicesAndAnswersHaveTheirOwnPools) {
  std::vector<std::uintptr_t> ofJobs, ofSlices, ofDestruction, ofAnswers;
  ASSERT_TRUE(livingPools.empty());
  for (int i = 0; i < 2; ++i) {
    std::shared_ptr<int> held(new int(0), [&](const int* number) {
      delete number;
      ofDestruction.push_back(livingPools.back());
    });
    queue_.async([&, held = std::move(held)] {
      ofJobs.push_back(livingPools.back());
      bool answered = false;
      answer([&] {
        answered = true;
        ofSlices.push_back(livingPools.back());
      });
      EXPECT_TRUE(sliceUntil(answered));
      EXPECT_EQ(livingPools.back(), ofJobs.back());  // the slice's pool has been popped
    });
  }
  serveAll();
  EXPECT_TRUE(livingPools.empty());
  ASSERT_EQ(ofJobs.size(), 2U);
  EXPECT_NE(ofJobs[0], ofJobs[1]);
  EXPECT_EQ(ofDestruction, ofJobs);
  ASSERT_EQ(ofSlices.size(), 2U);
  EXPECT_NE(ofSlices[0], ofSlices[1]);
  EXPECT_GT(ofSlices[0], ofJobs[0]);

  // Each answer queues the next one, so that they are delivered separately.
  std::function<void()> deliver = [&] {
    ofAnswers.push_back(livingPools.back());
    if (ofAnswers.size() < 3)
      answer(deliver);
    else
      queue_.stop();
  };
  answer(deliver);
  queue_.serveUntilStopped();
  EXPECT_TRUE(livingPools.empty());
  ASSERT_EQ(ofAnswers.size(), 3U);
  EXPECT_NE(ofAnswers[0], ofAnswers[1]);
  EXPECT_NE(ofAnswers[1], ofAnswers[2]);
}

// Counts live instances and the thread that destroys them.
class Counted {
 public:
  struct Counts {
    std::atomic<int> made{0}, destroyedOnMain{0}, destroyedElsewhere{0};
    std::thread::id main = std::this_thread::get_id();
  };

  explicit Counted(Counts& counts) : counts_(counts) { ++counts_.made; }
  ~Counted() {
    ++(std::this_thread::get_id() == counts_.main ? counts_.destroyedOnMain : counts_.destroyedElsewhere);
  }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  Counts& counts_;
};

TEST_F(RunLoopMainQueueTest, JobsOfManyThreadsRunOnceInOrderAndDieOnMainThread) {
  constexpr int senders = 4, jobsOfEach = 5000;
  Counted::Counts counts;
  std::vector<std::vector<int>> order(senders);
  int left = senders * jobsOfEach;
  std::vector<std::thread> threads;
  for (int sender = 0; sender < senders; ++sender)
    threads.emplace_back([&, sender] {
      for (int i = 0; i < jobsOfEach; ++i)
        queue_.async([&, sender, i, counted = std::make_shared<Counted>(counts)] {
          order[static_cast<std::size_t>(sender)].push_back(i);
          if (i % 100 == 0) queue_.runSlice(0);
          if (--left == 0) queue_.stop();
        });
    });
  queue_.serveUntilStopped();
  for (auto& thread : threads) thread.join();
  for (const auto& ofOne : order) {
    ASSERT_EQ(ofOne.size(), static_cast<std::size_t>(jobsOfEach));
    for (int i = 0; i < jobsOfEach; ++i) ASSERT_EQ(ofOne[static_cast<std::size_t>(i)], i);
  }
  EXPECT_EQ(counts.made, senders * jobsOfEach);
  EXPECT_EQ(counts.destroyedOnMain, senders * jobsOfEach);
  EXPECT_EQ(counts.destroyedElsewhere, 0);
}

// Ends the process, in one child process per test. A test that does not reach its exit runs into its time
// limit.
class RunLoopExitTest : public RunLoopMainQueueTest {
 protected:
  RunLoopExitTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Queues jobs that wait after the running one.
  void queueMany() {
    for (int i = 0; i < 1000; ++i) queue_.async([] { std::_Exit(1); });
  }

  POSIXProcess process_{0, nullptr};
};

TEST_F(RunLoopExitTest, JobEndsProcessWhileJobsWait) {
  EXPECT_EXIT(
      {
        queue_.async([&] {
          queueMany();
          process_.exit(41);
        });
        queue_.run();
      },
      testing::ExitedWithCode(41), "^$");
}

TEST_F(RunLoopExitTest, ThreadEndsProcessDuringSlice) {
  EXPECT_EXIT(
      {
        queue_.async([&] {
          queueMany();
          int slices = 0;
          const auto enough = queue_.makeSemaphore();
          std::thread([&] {
            enough->wait(1e9);
            process_.exit(42);
          }).detach();
          for (;;) {
            queue_.runSlice(1);
            if (++slices == 10) enough->signal();
          }
        });
        queue_.run();
      },
      testing::ExitedWithCode(42), "^$");
}

TEST_F(RunLoopExitTest, AnswerEndsProcessInsideSlice) {
  EXPECT_EXIT(
      {
        queue_.async([&] {
          queueMany();
          answer([&] { process_.exit(43); });
          for (;;) queue_.runSlice(20);
        });
        queue_.run();
      },
      testing::ExitedWithCode(43), "^$");
}

TEST_F(RunLoopExitTest, ThreadEndsProcessWhileQueueIsIdle) {
  EXPECT_EXIT(
      {
        bool isServing = false;
        queue_.async([&] {
          isServing = true;
          std::thread([&] { process_.exit(isServing ? 44 : 1); }).detach();
        });
        queue_.run();
      },
      testing::ExitedWithCode(44), "^$");
}

TEST_F(RunLoopExitTest, QueueKeepsRunningAfterStop) {
  EXPECT_EXIT(
      {
        queue_.async([&] {
          queue_.async([&] { process_.exit(45); });
          queue_.stop();
        });
        queue_.run();
      },
      testing::ExitedWithCode(45), "^$");
}

}  // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(RunLoop, MainQueueContract, RunLoopWorld);

}  // namespace palaver
