#include "simulator/machine/Scheduler.h"

#include <gmock/gmock.h>

#include <set>
#include <string>

#include "simulator/machine/SimulatedMachine.h"

namespace palaver {

namespace {

using testing::ElementsAre;
using Context = Timeline::Context;

class SchedulerTest : public testing::Test {
 protected:
  void note(double time, Context context, const std::string& what, const void* stream = nullptr) {
    scheduler_.schedule(time, context, stream, [this, what] { noted_.push_back(what); });
  }

  Scheduler scheduler_;
  std::vector<std::string> noted_;
};

TEST_F(SchedulerTest, RunsByTimeThenSequence) {
  note(20, Context::background, "c");
  note(10, Context::mainThreadCallback, "a");
  note(10, Context::background, "b");
  scheduler_.queue([this] { noted_.push_back("first"); });
  EXPECT_THROW(scheduler_.serve(), NothingLeft);
  EXPECT_THAT(noted_, ElementsAre("first", "a", "b", "c"));
  EXPECT_EQ(scheduler_.now(), 20);
}

TEST_F(SchedulerTest, SemaphoreWaitRunsBackgroundOnly) {
  note(1, Context::background, "background");
  note(1, Context::mainThreadCallback, "callback");
  scheduler_.queue([this] { noted_.push_back("job"); });
  EXPECT_FALSE(scheduler_.waitUntil([] { return false; }, 5));
  EXPECT_THAT(noted_, ElementsAre("background"));
  EXPECT_EQ(scheduler_.now(), 5);
}

TEST_F(SchedulerTest, SliceDeliversOneWaitingCallback) {
  note(1, Context::mainThreadCallback, "callback");
  note(1, Context::mainThreadCallback, "another");
  scheduler_.queue([this] { noted_.push_back("job"); });
  EXPECT_FALSE(scheduler_.waitUntil([] { return false; }, 5));
  scheduler_.runSlice(20);
  EXPECT_THAT(noted_, ElementsAre("callback"));
  EXPECT_EQ(scheduler_.now(), 5);
  scheduler_.runSlice(20);
  scheduler_.runSlice(20);
  EXPECT_THAT(noted_, ElementsAre("callback", "another"));
  EXPECT_EQ(scheduler_.now(), 25);
}

TEST_F(SchedulerTest, SliceInsideJobDeliversNothingIfDisabled) {
  scheduler_.setSlicesDeliverInsideJobs(false);
  note(0, Context::mainThreadCallback, "callback");
  scheduler_.runSlice(20);
  EXPECT_THAT(noted_, ElementsAre("callback"));
  scheduler_.queue([this] {
    note(0, Context::mainThreadCallback, "late");
    scheduler_.runSlice(20);
    noted_.push_back("job");
  });
  EXPECT_THROW(scheduler_.serve(), NothingLeft);
  EXPECT_THAT(noted_, ElementsAre("callback", "job", "late"));
}

TEST_F(SchedulerTest, ConditionMetAtDeadlineCounts) {
  bool holds = false;
  scheduler_.schedule(5, Context::background, nullptr, [&] { holds = true; });
  EXPECT_TRUE(scheduler_.waitUntil([&] { return holds; }, 5));
  EXPECT_EQ(scheduler_.now(), 5);
}

TEST_F(SchedulerTest, NothingRunsAfterExit) {
  scheduler_.queue([this] { scheduler_.exit(3); });
  note(0, Context::background, "later");
  scheduler_.queue([this] { noted_.push_back("later"); });
  try {
    scheduler_.serve();
  } catch (const ProcessExit& exit) {
    EXPECT_EQ(exit.status, 3);
  }
  EXPECT_TRUE(scheduler_.hasEnded());
  // Still holds after the exit was caught.
  EXPECT_THROW(scheduler_.runSlice(10), ProcessExit);
  EXPECT_THROW(scheduler_.waitUntil([] { return false; }, 10), ProcessExit);
  EXPECT_THROW(scheduler_.serve(), ProcessExit);
  EXPECT_THROW(scheduler_.exit(0), ProcessExit);
  EXPECT_TRUE(noted_.empty());
}

TEST(Scheduler, EndsAreNotStdExceptions) {
  EXPECT_FALSE((std::is_base_of_v<std::exception, ProcessExit>));
  EXPECT_FALSE((std::is_base_of_v<std::exception, NothingLeft>));
}

TEST_F(SchedulerTest, NoWaitExceedsHorizon) {
  scheduler_.setHorizon(100);
  note(101, Context::background, "too late");
  EXPECT_FALSE(scheduler_.waitUntil([] { return false; }, 100));
  EXPECT_THROW(scheduler_.waitUntil([] { return false; }, 1), NothingLeft);
  EXPECT_THROW(scheduler_.serve(), NothingLeft);
  EXPECT_TRUE(noted_.empty());
}

TEST_F(SchedulerTest, SeedShufflesEqualTimesButKeepsStreams) {
  std::set<std::vector<std::string>> orders;
  for (std::uint64_t seed = 0; seed < 32; ++seed) {
    Scheduler scheduler(seed);
    std::vector<std::string> order;
    const auto add = [&](double time, const void* stream, const char* what) {
      scheduler.schedule(time, Context::background, stream, [&order, what] { order.push_back(what); });
    };
    const int one = 0, two = 0;
    add(1, &one, "a1");
    add(1, &one, "a2");
    add(1, &two, "b1");
    add(1, &two, "b2");
    add(2, &one, "last");
    EXPECT_THROW(scheduler.serve(), NothingLeft);
    const auto position = [&](const char* what) { return std::find(order.begin(), order.end(), what); };
    EXPECT_LT(position("a1"), position("a2"));
    EXPECT_LT(position("b1"), position("b2"));
    EXPECT_EQ(order.back(), "last");
    orders.insert(order);
  }
  EXPECT_EQ(orders.size(), 6u);  // all interleavings of two pairs
}

TEST_F(SchedulerTest, ClockShowsVirtualTimeAndCanBeSet) {
  SimulatedClock clock(scheduler_, 1000);
  EXPECT_EQ(clock.nowMilliseconds(), 1000);
  scheduler_.runSlice(2.5);
  EXPECT_EQ(clock.nowMilliseconds(), 1002.5);
  clock.setShift(-500);
  EXPECT_EQ(clock.nowMilliseconds(), 502.5);
}

}  // namespace

}  // namespace palaver
