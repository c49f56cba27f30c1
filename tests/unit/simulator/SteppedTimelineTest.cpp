#include "simulator/stepped/SteppedTimeline.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace palaver {

namespace {

using End = SteppedTimeline::End;
constexpr auto background = Timeline::Context::background;

class SteppedTimelineTest : public testing::Test {
 protected:
  void note(double delay, const std::string& name) {
    timeline_.schedule(delay, background, nullptr, [this, name] { ran_.push_back(name); });
  }
  void advance(double time, End end) {
    while (timeline_.runNext(time, end)) {
    }
  }

  SteppedTimeline timeline_;
  std::vector<std::string> ran_;
};

TEST_F(SteppedTimelineTest, TimeMovesOnlyWhenStepped) {
  note(0, "at once");
  EXPECT_TRUE(ran_.empty());
  EXPECT_EQ(timeline_.now(), 0);
}

TEST_F(SteppedTimelineTest, RunsDueJobsInOrderAtTheirTimes) {
  std::vector<double> times;
  note(30, "last");
  timeline_.schedule(10, background, nullptr, [&] {
    times.push_back(timeline_.now());
    note(5, "second");
  });
  note(10, "first");
  advance(30, End::included);
  EXPECT_EQ(ran_, (std::vector<std::string>{"first", "second", "last"}));
  EXPECT_EQ(times, std::vector<double>{10});
  EXPECT_EQ(timeline_.now(), 30);
}

TEST_F(SteppedTimelineTest, EndTimeIsIncludedOnlyOnRequest) {
  note(20, "at the end");
  advance(20, End::excluded);
  EXPECT_TRUE(ran_.empty());
  EXPECT_EQ(timeline_.now(), 20);
  advance(20, End::included);
  EXPECT_EQ(ran_, std::vector<std::string>{"at the end"});
}

TEST_F(SteppedTimelineTest, TimeoutsRunLastAtTheirTime) {
  timeline_.scheduleTimeout(10, [this] { ran_.emplace_back("timeout"); });
  note(10, "job");
  advance(10, End::included);
  EXPECT_EQ(ran_, (std::vector<std::string>{"job", "timeout"}));
}

TEST_F(SteppedTimelineTest, CallbacksAreForwardedWhenDue) {
  std::vector<Timeline::Job> handedOn;
  timeline_.setCallbackDelivery([&](Timeline::Job job) { handedOn.push_back(std::move(job)); });
  timeline_.schedule(10, Timeline::Context::mainThreadCallback, nullptr,
                     [this] { ran_.emplace_back("callback"); });
  advance(9, End::included);
  EXPECT_TRUE(handedOn.empty());
  advance(10, End::included);
  ASSERT_EQ(handedOn.size(), 1u);
  EXPECT_TRUE(ran_.empty());
  handedOn.front()();
  EXPECT_EQ(ran_, std::vector<std::string>{"callback"});
}

TEST_F(SteppedTimelineTest, ClockShowsTimeAndCanBeSet) {
  SteppedClock clock(timeline_, 1000);
  advance(20, End::included);
  EXPECT_EQ(clock.nowMilliseconds(), 1020);
  clock.setShift(-500);
  EXPECT_EQ(clock.nowMilliseconds(), 520);
}

}  // namespace

}  // namespace palaver
