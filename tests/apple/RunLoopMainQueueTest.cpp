// The main queue of macOS on the real run loop and the real dispatch main queue.
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
#include "tests/unit/platform/MainQueueContract.h"

// In the place of the Objective-C runtime: the pools of this thread, by number.
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
  RunLoopMainQueue queue_;
  std::vector<std::thread> threads_;
};

// How often a test turns a slice before it says that nothing is delivered in them. Not a time.
constexpr int slicesAtMost = 100000;

class RunLoopMainQueueTest : public testing::Test {
 protected:
  // Answers on the dispatch main queue, as a recognizer does, from a thread of its own; the answer has been
  // queued on return.
  static void answer(std::function<void()> handler) {
    auto* const held = new std::function<void()>(std::move(handler));
    std::thread([held] {
      dispatch_async(dispatch_get_main_queue(), ^{
        (*held)();
        delete held;
      });
    }).join();
  }
  // Turns slices until the flag is set. False when that takes too many.
  bool sliceUntil(const bool& flag) {
    for (int slice = 0; slice < slicesAtMost && !flag; ++slice) queue_.runSlice(20);
    return flag;
  }
  // Serves what has been queued until now.
  void serveAll() {
    queue_.async([this] { queue_.stop(); });
    queue_.serveUntilStopped();
  }

  RunLoopMainQueue queue_;
};

TEST_F(RunLoopMainQueueTest, AnAnswerIsHeardInsideAJobThatTurnsSlices) {
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

TEST_F(RunLoopMainQueueTest, AnAnswerIsHeardBetweenJobs) {
  answer([&] { queue_.stop(); });
  queue_.serveUntilStopped();
}

TEST_F(RunLoopMainQueueTest, NoAnswerIsHeardInsideABlockOfTheMainQueue) {
  // Why jobs are no such blocks.
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

TEST_F(RunLoopMainQueueTest, ASliceRunsNoJobHoweverMuchIsDelivered) {
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

TEST_F(RunLoopMainQueueTest, JobsRunOneAtATimeAlsoWhenEachTurnsSlices) {
  std::vector<int> order;
  bool isInside = false, overlapped = false;
  for (int i = 0; i < 20; ++i)
    queue_.async([&, i] {
      overlapped = overlapped || isInside;
      isInside = true;
      bool answered = false;
      // An answer may queue a job, which comes behind all others.
      answer([&] {
        answered = true;
        queue_.async([&, i] { order.push_back(100 + i); });
      });
      EXPECT_TRUE(sliceUntil(answered));
      order.push_back(i);
      isInside = false;
    });
  serveAll();
  serveAll();  // the jobs of the answers
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(order.size(), 40U);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(order[static_cast<std::size_t>(20 + i)], 100 + i);
  }
}

TEST_F(RunLoopMainQueueTest, AJobQueuedWhileAnotherTurnsSlicesRunsWithoutFurtherAdo) {
  // A slice takes the wake-up of the jobs that it does not run.
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

TEST_F(RunLoopMainQueueTest, SlicesBeforeTheQueueIsServedHearAnswersAndKeepJobs) {
  bool ran = false, answered = false;
  queue_.async([&] { ran = true; });
  answer([&] { answered = true; });
  EXPECT_TRUE(sliceUntil(answered));
  EXPECT_FALSE(ran);
  serveAll();
  EXPECT_TRUE(ran);
}

TEST_F(RunLoopMainQueueTest, ASliceWithNothingToDeliverTakesItsTime) {
  SystemClock clock;
  const double start = clock.nowMilliseconds();
  queue_.runSlice(5);
  EXPECT_GE(clock.nowMilliseconds() - start, 4);
  queue_.runSlice(0);
  queue_.runSlice(-1);
  // Also where the dispatch main queue is not served, so that nothing at all could happen.
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

TEST_F(RunLoopMainQueueTest, AnAnswerEndsASliceAtOnce) {
  // Else this waited for years.
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

TEST_F(RunLoopMainQueueTest, AStopOfTheRunLoopDoesNotEndTheQueue) {
  int jobs = 0;
  for (int i = 0; i < 3; ++i)
    queue_.async([&] {
      ++jobs;
      CFRunLoopStop(CFRunLoopGetMain());
    });
  serveAll();
  EXPECT_EQ(jobs, 3);
}

TEST_F(RunLoopMainQueueTest, EachJobEachSliceAndEachAnswerHasAPoolOfItsOwn) {
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
      EXPECT_EQ(livingPools.back(), ofJobs.back());  // that of the slice has gone
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

  // Each answer queues the next one, so that they are delivered one by one.
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

// Counts itself while it lives, and where it goes.
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

TEST_F(RunLoopMainQueueTest, ThousandsOfJobsOfManyThreadsRunOnceEachInOrderAndAreDestroyedHere) {
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

// The end of the process, each in a process of its own. Nobody else ends it: a test that does not reach its
// exit runs into its time limit.
class RunLoopExitTest : public RunLoopMainQueueTest {
 protected:
  RunLoopExitTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Jobs that wait for ever behind the one that is at work.
  void queueMany() {
    for (int i = 0; i < 1000; ++i) queue_.async([] { std::_Exit(1); });
  }

  POSIXProcess process_{0, nullptr};
};

TEST_F(RunLoopExitTest, AJobMayEndTheProcessWhileOthersWait) {
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

TEST_F(RunLoopExitTest, AThreadMayEndTheProcessWhileAJobTurnsSlicesAndOthersWait) {
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

TEST_F(RunLoopExitTest, AnAnswerMayEndTheProcessFromInsideASliceOfAJob) {
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

TEST_F(RunLoopExitTest, AThreadMayEndTheProcessWhileTheQueueWaits) {
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

TEST_F(RunLoopExitTest, TheQueueIsServedOnAfterTheRunLoopHasBeenStopped) {
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
