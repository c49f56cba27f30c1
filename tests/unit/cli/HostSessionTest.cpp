#include "cli/AudioChunk.h"
#include "cli/HostSession.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace palaver::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Generates chunks of 100 ms: a loud square wave, or silence.
class SyntheticSound final : public SoundSource {
 public:
  enum class Kind { loud, silent, failing };
  SyntheticSound(Kind kind, std::size_t chunks) : kind_(kind), left_(chunks * chunkFrames) {}

  std::size_t read(std::span<std::int16_t> frames) override {
    if (kind_ == Kind::failing) throw std::runtime_error("the disk failed");
    const auto count = std::min(frames.size(), left_);
    for (std::size_t at = 0; at < count; ++at)
      frames[at] = static_cast<std::int16_t>(kind_ == Kind::loud ? (at % 100 < 50 ? 9000 : -9000) : 0);
    left_ -= count;
    return count;
  }
  std::int64_t length() const override { return static_cast<std::int64_t>(left_); }

 private:
  Kind kind_;
  std::size_t left_;
};

std::unique_ptr<SoundSource> loud(std::size_t chunks) {
  return std::make_unique<SyntheticSound>(SyntheticSound::Kind::loud, chunks);
}

struct Record final : HostObserver {
  std::vector<std::string> types;
  std::vector<nlohmann::json> finals;
  std::vector<std::string> diagnostics;
  std::vector<std::string> problems;
  double streamed = 0;
  double total = 0;
  HostSession* interruptOnText = nullptr;
  std::function<void()> onText;   // called with the first partial
  std::function<void()> onReady;  // called when the session is ready
  std::function<void()> onStart;  // called when streaming starts

  void onEvent(std::string_view line, const nlohmann::json& event) override {
    EXPECT_EQ(line.find('\n'), std::string_view::npos);
    const auto type = event.value("type", "");
    if (type == "transcript.final") finals.push_back(event);
    if (type != "pong") types.push_back(type);
    if (type == "session.ready" && onReady) onReady();
    if (type == "transcript.partial" && interruptOnText) interruptOnText->interrupt();
    if (type == "transcript.partial" && onText) std::exchange(onText, nullptr)();
  }
  void onDiagnostic(std::string_view line) override { diagnostics.emplace_back(line); }
  void onProblem(std::string_view message) override { problems.emplace_back(message); }
  void onStreamStart(double startedAt) override {
    EXPECT_GT(startedAt, 1.6e12);
    if (onStart) onStart();
  }
  void onProgress(double position, double length) override {
    streamed = position;
    total = length;
  }
};

class HostSessionTest : public ::testing::Test {
 protected:
  HostSessionTest() { std::signal(SIGPIPE, SIG_IGN); }

  // The limits are short for a user, but far above the time that the fake helper takes.
  static HostConfiguration configuration(const std::string& behaviour) {
    HostConfiguration configuration;
    configuration.helper = {PALAVER_FAKE_HELPER, behaviour};
    configuration.speed = 20;
    configuration.limits.settle = 100;
    configuration.load = [] { return 0.0; };  // the load of the machine must not change what is tested
    // Generous, so that slow machines pass.
    configuration.limits.finals = configuration.limits.stopped = configuration.limits.stall = 120'000;
    return configuration;
  }

  bool run(HostConfiguration configuration, std::unique_ptr<SoundSource> remote,
           std::unique_ptr<SoundSource> self = nullptr) {
    HostSession session(std::move(configuration), std::move(remote), std::move(self), record);
    return session.run();
  }
  bool run(const std::string& behaviour) { return run(configuration(behaviour), loud(10)); }

  Record record;
};

TEST_F(HostSessionTest, ServedSessionEndsWell) {
  EXPECT_TRUE(run(configuration("well"), loud(10), loud(3)));
  EXPECT_THAT(record.problems, IsEmpty());
  EXPECT_THAT(record.finals, SizeIs(2));
  EXPECT_EQ(record.total, 1000);
  EXPECT_GT(record.streamed, record.total);  // includes the trailing silence
  ASSERT_GE(record.types.size(), 3U);
  EXPECT_EQ(record.types[0], "helper.status");
  EXPECT_EQ(record.types[1], "session.ready");
  EXPECT_EQ(record.types.back(), "session.stopped");
}

TEST_F(HostSessionTest, ChunksArriveInOrderTimedByAudio) {
  EXPECT_TRUE(run(configuration("well"), loud(30)));
  ASSERT_THAT(record.finals, SizeIs(1));
  // 30 loud chunks, numbered from 0. The fake helper closes with the fifth quiet one.
  EXPECT_EQ(record.finals[0].at("text"), "chunk 34");
}

TEST_F(HostSessionTest, StreamKeepsRealTime) {
  auto realTime = configuration("well");
  realTime.speed = 2;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(run(std::move(realTime), loud(20)));
  // 2 s at double speed take at least 1 s.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

// Provides audio as the test gives it, through a descriptor.
class PipedSound final : public SoundSource {
 public:
  explicit PipedSound(bool live) : live_(live) {}

  void give(std::size_t chunks, bool isLast = false) {
    arriving_ += chunks * chunkFrames;
    isLast_ = isLast;
    const char byte = 0;
    ASSERT_EQ(::write(pipe_.writeEnd.get(), &byte, 1), 1);
  }

  std::size_t read(std::span<std::int16_t> frames) override {
    const auto count = std::min(frames.size(), ready_);
    for (std::size_t at = 0; at < count; ++at)
      frames[at] = static_cast<std::int16_t>(at % 100 < 50 ? 9000 : -9000);
    ready_ -= count;
    return count;
  }
  std::int64_t length() const override { return 0; }
  int descriptor() const override { return ended_ ? -1 : pipe_.readEnd.get(); }
  void receive() override {
    char byte = 0;
    ASSERT_EQ(::read(pipe_.readEnd.get(), &byte, 1), 1);
    ready_ += arriving_.exchange(0);
    ended_ = isLast_;
  }
  bool canRead(std::size_t frames) const override { return ended_ || ready_ >= frames; }
  std::optional<std::chrono::steady_clock::time_point> liveSince() const override {
    if (!live_) return std::nullopt;
    return std::chrono::steady_clock::now() - std::chrono::seconds(10);
  }
  void stop() override {
    ready_ += arriving_.exchange(0);
    ended_ = true;
  }

 private:
  bool live_;
  Pipe pipe_ = makePipe();
  std::atomic<std::size_t> arriving_ = 0;
  std::atomic<bool> isLast_ = false;
  std::size_t ready_ = 0;
  bool ended_ = false;
};

TEST_F(HostSessionTest, LiveAudioIsTranscribedWhileItFlows) {
  auto sound = std::make_unique<PipedSound>(true);
  auto& microphone = *sound;
  auto realTime = configuration("well");
  realTime.speed = 1;
  HostSession session(std::move(realTime), std::move(sound), nullptr, record);
  // The rest is given only when a text of the beginning is there.
  record.onText = [&] { microphone.give(3, true); };
  microphone.give(5);
  EXPECT_TRUE(session.run());
  ASSERT_THAT(record.finals, SizeIs(1));
  EXPECT_EQ(record.finals[0].at("text"), "chunk 12");
  EXPECT_EQ(record.total, 900);  // known at the end: 8 chunks and the one that found the end
}

TEST_F(HostSessionTest, StreamStartsWithFirstAudio) {
  auto sound = std::make_unique<PipedSound>(false);
  auto& microphone = *sound;
  record.onReady = [&] { microphone.give(5, true); };
  bool hasAudio = false;
  record.onStart = [&] { hasAudio = microphone.canRead(chunkFrames); };
  EXPECT_TRUE(run(configuration("well"), std::move(sound)));
  EXPECT_TRUE(hasAudio);
  EXPECT_THAT(record.finals, SizeIs(1));
}

TEST_F(HostSessionTest, StopOfLiveAudioSendsWhatHasArrived) {
  auto sound = std::make_unique<PipedSound>(true);
  auto& microphone = *sound;
  HostSession session(configuration("well"), std::move(sound), nullptr, record);
  record.onText = [&] {
    microphone.give(2);
    session.stopAudio();
  };
  microphone.give(5);
  EXPECT_TRUE(session.run());
  EXPECT_THAT(record.problems, IsEmpty());
  ASSERT_THAT(record.finals, SizeIs(1));
  EXPECT_EQ(record.finals[0].at("text"), "chunk 11");
}

TEST_F(HostSessionTest, StopOfRecordingLeavesOutTheRest) {
  HostSession session(configuration("well"), loud(100000), nullptr, record);
  record.onText = [&] { session.stopAudio(); };
  EXPECT_TRUE(session.run());
  EXPECT_THAT(record.finals, SizeIs(1));
}

TEST_F(HostSessionTest, AudioBeforeSessionIsSentImmediately) {
  auto sound = std::make_unique<PipedSound>(true);
  sound->give(90, true);  // of the 10 s for which it says to be live
  auto realTime = configuration("well");
  realTime.speed = 1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(run(std::move(realTime), std::move(sound)));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

TEST_F(HostSessionTest, UnreadableStreamIsReported) {
  struct Failing final : SoundSource {
    Pipe pipe = makePipe();
    Failing() { pipe.writeEnd.close(); }
    std::size_t read(std::span<std::int16_t>) override { return 0; }
    std::int64_t length() const override { return 0; }
    int descriptor() const override { return pipe.readEnd.get(); }
    void receive() override { throw std::runtime_error("standard input contains no audio"); }
    bool canRead(std::size_t) const override { return false; }
  };
  EXPECT_FALSE(run(configuration("well"), std::make_unique<Failing>()));
  EXPECT_THAT(record.problems, ElementsAre("standard input contains no audio"));
}

TEST_F(HostSessionTest, SilentSourceNeedsNoFinal) {
  EXPECT_TRUE(run(configuration("well"), std::make_unique<SyntheticSound>(SyntheticSound::Kind::silent, 5)));
  EXPECT_THAT(record.finals, IsEmpty());
}

TEST_F(HostSessionTest, UnstartableHelperIsError) {
  HostConfiguration missing;
  missing.helper = {"/nowhere/at/all"};
  HostSession session(missing, loud(1), nullptr, record);
  EXPECT_THROW(session.run(), std::system_error);
}

TEST_F(HostSessionTest, HelperExitIsReportedWithStatus) {
  EXPECT_FALSE(run("dies"));
  EXPECT_THAT(record.problems, ElementsAre("the helper ended early, with exit status 3"));
}

TEST_F(HostSessionTest, KilledHelperIsReportedWithSignal) {
  EXPECT_FALSE(run("killed"));
  EXPECT_THAT(record.problems, ElementsAre(HasSubstr("signal 9")));
}

TEST_F(HostSessionTest, MissingStatusTimesOut) {
  auto shortLimits = configuration("silent");
  shortLimits.limits.status = 200;
  shortLimits.limits.stopped = 200;
  EXPECT_FALSE(run(std::move(shortLimits), loud(1)));
  ASSERT_THAT(record.problems, testing::Not(IsEmpty()));
  EXPECT_EQ(record.problems[0], "the helper has not reported its status within 0.2 s");
}

TEST_F(HostSessionTest, MissingSessionReadyTimesOut) {
  auto shortLimits = configuration("never-ready");
  shortLimits.limits.ready = 200;
  EXPECT_FALSE(run(std::move(shortLimits), loud(1)));
  EXPECT_THAT(record.problems, ElementsAre("the session was not ready within 0.2 s"));
}

TEST_F(HostSessionTest, UnavailableSessionIsReportedWithReason) {
  EXPECT_FALSE(run("unavailable"));
  EXPECT_THAT(record.problems, ElementsAre("the session is not available: there is no model"));
}

TEST_F(HostSessionTest, OutputFloodIsReadWhileAudioIsWritten) {
  EXPECT_TRUE(run("floods"));
  EXPECT_THAT(record.problems, IsEmpty());
  EXPECT_THAT(record.finals, SizeIs(1));
}

TEST_F(HostSessionTest, SlowHelperDelaysStreamAndLosesNothing) {
  auto fast = configuration("slow");
  fast.speed = 100;
  EXPECT_TRUE(run(std::move(fast), loud(400), loud(400)));
  EXPECT_THAT(record.problems, IsEmpty());
  ASSERT_THAT(record.finals, SizeIs(2));
  for (const auto& final : record.finals) EXPECT_EQ(final.at("text"), "chunk 404");
}

TEST_F(HostSessionTest, HelperThatStopsReadingTimesOut) {
  auto fast = configuration("reads-nothing");
  fast.speed = 100;
  fast.limits.stall = 200;
  EXPECT_FALSE(run(std::move(fast), loud(1000)));
  ASSERT_THAT(record.problems, testing::Not(IsEmpty()));
  EXPECT_EQ(record.problems[0], "the helper has not read its input for 0.2 s");
}

TEST_F(HostSessionTest, ErrorEventFailsSessionWithoutEndingIt) {
  EXPECT_FALSE(run("reports-error"));
  EXPECT_THAT(record.finals, SizeIs(1));
  EXPECT_THAT(record.types, testing::Contains("helper.error"));
}

TEST_F(HostSessionTest, NonEventLineIsReported) {
  EXPECT_FALSE(run("writes-garbage"));
  EXPECT_THAT(record.problems, ElementsAre("the helper wrote an invalid event: hello"));
  EXPECT_THAT(record.finals, SizeIs(1));
}

TEST_F(HostSessionTest, MissingFinalIsReported) {
  auto shortLimits = configuration("leaves-open");
  shortLimits.limits.finals = 300;
  EXPECT_FALSE(run(std::move(shortLimits), loud(5)));
  EXPECT_THAT(record.problems, ElementsAre(testing::MatchesRegex("a final is missing after .* s of silence"),
                                           "the last final of remote is missing"));
}

TEST_F(HostSessionTest, BusyMachineIsNamedForMissingFinal) {
  auto busy = configuration("leaves-open");
  busy.limits.finals = 100;
  busy.load = [] { return 3.04; };
  EXPECT_FALSE(run(std::move(busy), loud(5)));
  EXPECT_THAT(record.problems,
              ElementsAre(testing::MatchesRegex("the machine is too busy \\(3.0 threads wait for each "
                                                "processor\\): a final is missing after .* s of silence"),
                          "the last final of remote is missing"));
}

TEST_F(HostSessionTest, NonzeroExitStatusIsReported) {
  EXPECT_FALSE(run("fails"));
  EXPECT_THAT(record.problems, ElementsAre("the helper ended with exit status 5"));
}

TEST_F(HostSessionTest, HelperThatDoesNotExitIsTerminated) {
  auto shortLimits = configuration("stays");
  shortLimits.limits.stopped = 200;
  EXPECT_FALSE(run(std::move(shortLimits), loud(2)));
  EXPECT_THAT(record.problems, ElementsAre("the helper has not ended within 0.2 s of the end of its input",
                                           HasSubstr("the helper ended with signal 15")));
}

TEST_F(HostSessionTest, StandardErrorIsForwardedByLine) {
  EXPECT_TRUE(run("chatters"));
  EXPECT_THAT(record.diagnostics, ElementsAre("diagnostic line"));
}

TEST_F(HostSessionTest, SoundReadErrorEndsSessionInOrder) {
  EXPECT_FALSE(
      run(configuration("well"), std::make_unique<SyntheticSound>(SyntheticSound::Kind::failing, 5)));
  EXPECT_THAT(record.problems, ElementsAre("the disk failed"));
}

TEST_F(HostSessionTest, InterruptEndsHelperInOrder) {
  auto longSession = configuration("well");
  HostSession session(std::move(longSession), loud(100000), nullptr, record);
  record.interruptOnText = &session;
  EXPECT_FALSE(session.run());
  // The fake helper exited with status 0, so neither a signal nor a status is reported.
  EXPECT_THAT(record.problems, ElementsAre("interrupted", "the last final of remote is missing"));
}

}  // namespace
}  // namespace palaver::cli
