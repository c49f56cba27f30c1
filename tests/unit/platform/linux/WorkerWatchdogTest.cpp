#include "platform/linux/WorkerWatchdog.h"

#include <gtest/gtest.h>

#include "platform/linux/SpeechWorker.h"

namespace palaver {
namespace {

using enum WorkerWatchdog::Verdict;

// Checks the watchdog every second.
class WorkerWatchdogTest : public testing::Test {
 protected:
  WorkerWatchdog::Verdict after(int seconds) {
    auto verdict = good;
    for (int i = 0; i < seconds && verdict == good; ++i) verdict = watchdog_.check(now_ += 1000);
    return verdict;
  }
  // Opens a channel and starts its first task, which has the channel's number.
  void startTask(std::uint32_t channel) {
    watchdog_.channelOpened(channel);
    watchdog_.taskStarted(channel, channel);
  }

  double now_ = 5000;
  WorkerWatchdog watchdog_{WorkerLimits(), now_};
};

TEST_F(WorkerWatchdogTest, LoadingMayTake59s) {
  EXPECT_EQ(after(59), good);
  EXPECT_EQ(after(1), loadingHangs);
}

TEST_F(WorkerWatchdogTest, IdleWorkerIsNotNeededAfter60s) {
  watchdog_.loaded();
  EXPECT_EQ(after(59), good);
  EXPECT_EQ(after(1), idle);
}

TEST_F(WorkerWatchdogTest, OpenChannelKeepsWorker) {
  watchdog_.loaded();
  watchdog_.channelOpened(1);
  EXPECT_EQ(after(3600), good);
  watchdog_.channelClosed(1);
  EXPECT_EQ(after(59), good);
  EXPECT_EQ(after(1), idle);
}

TEST_F(WorkerWatchdogTest, TaskOfClosedChannelKeepsWorker) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.channelClosed(1);
  EXPECT_EQ(after(3600), good);
  watchdog_.taskEnded(1);
  EXPECT_EQ(after(60), idle);
}

TEST_F(WorkerWatchdogTest, TaskWithoutOutstandingAudioIsNotWatched) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioSent(1, WorkerWatchdog::unwatchedFrames - 1);
  EXPECT_EQ(after(3600), good);
}

TEST_F(WorkerWatchdogTest, OutstandingAudioIsWatched) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioSent(1, WorkerWatchdog::unwatchedFrames);
  EXPECT_EQ(after(30), good);
  EXPECT_EQ(after(1), answeringHangs);
}

TEST_F(WorkerWatchdogTest, ProgressDelaysVerdict) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioSent(1, 160000);
  EXPECT_EQ(after(29), good);
  watchdog_.audioConsumed(1, 8000);
  EXPECT_EQ(after(29), good);
  watchdog_.answered(1);
  EXPECT_EQ(after(29), good);
  EXPECT_EQ(after(2), answeringHangs);
}

TEST_F(WorkerWatchdogTest, EndedAudioIsWatchedUntilTaskEnds) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioEnded(1);
  EXPECT_EQ(after(29), good);
  watchdog_.taskEnded(1);
  EXPECT_EQ(after(3600), good);
}

TEST_F(WorkerWatchdogTest, SecondTaskOfChannelWaitsUnwatched) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.taskStarted(1, 2);
  watchdog_.audioEnded(2);
  EXPECT_EQ(after(3600), good);
  watchdog_.taskEnded(1);
  EXPECT_EQ(after(31), answeringHangs);
}

TEST_F(WorkerWatchdogTest, ProgressOfOtherChannelHidesNoHang) {
  watchdog_.loaded();
  for (const std::uint32_t channel : {1U, 2U}) {
    startTask(channel);
    watchdog_.audioSent(channel, 1'000'000);
  }
  auto verdict = good;
  for (int i = 0; i < 31 && verdict == good; ++i) {
    watchdog_.answered(1);
    verdict = after(1);
  }
  EXPECT_EQ(verdict, answeringHangs);
}

TEST_F(WorkerWatchdogTest, TasksWaitWhileEngineDecodesOthers) {
  watchdog_.loaded();
  for (const std::uint32_t channel : {1U, 2U}) {
    startTask(channel);
    watchdog_.audioEnded(channel);
  }
  for (int i = 0; i < 100; ++i) {
    watchdog_.decodingBegan(0);
    EXPECT_EQ(after(29), good);
  }
  EXPECT_EQ(after(2), answeringHangs) << "no other decoding began";
}

TEST_F(WorkerWatchdogTest, DecodingMayTakeTwiceItsAudioLonger) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioEnded(1);
  watchdog_.decodingBegan(20 * 16000);
  EXPECT_EQ(watchdog_.answeringLimit(), 70'000);
  EXPECT_EQ(after(70), good);
  EXPECT_EQ(after(1), answeringHangs);
}

TEST_F(WorkerWatchdogTest, LimitIsThatOfNewestDecoding) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioEnded(1);
  watchdog_.decodingBegan(20 * 16000);
  EXPECT_EQ(after(60), good);
  watchdog_.decodingBegan(5 * 16000);
  EXPECT_EQ(after(40), good);
  EXPECT_EQ(after(1), answeringHangs);
}

TEST_F(WorkerWatchdogTest, TimeWithoutChecksDoesNotCount) {
  watchdog_.loaded();
  startTask(1);
  watchdog_.audioEnded(1);
  EXPECT_EQ(after(10), good);
  now_ += 3'600'000;  // the helper was stopped, and the worker with it
  EXPECT_EQ(after(10), good);
  EXPECT_EQ(after(20), answeringHangs);
}

TEST_F(WorkerWatchdogTest, LoadingTimeDoesNotCountForTasks) {
  startTask(1);
  watchdog_.audioEnded(1);
  EXPECT_EQ(after(50), good);
  watchdog_.loaded();
  EXPECT_EQ(after(30), good);
  EXPECT_EQ(after(1), answeringHangs);
}

TEST(WorkerRestarts, ThirdDeathWithin60sPausesFor30s) {
  WorkerRestarts restarts{WorkerLimits()};
  restarts.failed(0);
  restarts.failed(10'000);
  EXPECT_LE(restarts.remainingPause(10'000), 0);
  restarts.failed(60'000);
  EXPECT_EQ(restarts.remainingPause(60'000), 30'000);
  EXPECT_EQ(restarts.remainingPause(89'999), 1);
  EXPECT_LE(restarts.remainingPause(90'000), 0);
}

TEST(WorkerRestarts, RareDeathsPauseNothing) {
  WorkerRestarts restarts{WorkerLimits()};
  for (double now = 0; now < 1'000'000; now += 30'001) {
    restarts.failed(now);
    EXPECT_LE(restarts.remainingPause(now), 0);
  }
}

TEST(WorkerRestarts, DeathAfterPausePausesAgain) {
  WorkerRestarts restarts{WorkerLimits()};
  for (const double now : {0.0, 1.0, 2.0}) restarts.failed(now);
  EXPECT_LE(restarts.remainingPause(30'002), 0);
  restarts.failed(30'002);
  EXPECT_EQ(restarts.remainingPause(30'002), 30'000);
}

}  // namespace
}  // namespace palaver
