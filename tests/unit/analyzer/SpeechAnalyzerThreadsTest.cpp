// Tests the backend on real threads: a pool runs its tasks, and the platform answers on its own threads.
#include <gtest/gtest.h>

#include <asio/thread_pool.hpp>
#include <chrono>
#include <future>
#include <latch>

#include "analyzer/SpeechAnalyzerBackend.h"
#include "core/JSONLineWriter.h"
#include "platform/Platform.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/posix/MemoryAudioBuffers.h"
#include "platform/posix/POSIXProcess.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "simulator/ThreadedTimeline.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"
#include "simulator/scenario/SyntheticAudio.h"
#include "tests/unit/analyzer/BackendStorm.h"

namespace palaver {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// Collects the output lines, however many calls write a line.
class LineCollector final : public OutputStream {
 public:
  void write(std::string_view bytes) override {
    const std::lock_guard guard(lock_);
    text_ += bytes;
  }
  std::vector<json> events() const {
    const std::lock_guard guard(lock_);
    std::vector<json> events;
    std::istringstream lines(text_);
    for (std::string line; std::getline(lines, line);) events.push_back(json::parse(line));
    return events;
  }

 private:
  mutable std::mutex lock_;
  std::string text_;
};

// Forwards to the simulated analysis. Blocks the thread that looks up a locale until released.
class BlockingSpeechAnalysis final : public SpeechAnalysis {
 public:
  explicit BlockingSpeechAnalysis(SpeechAnalysis& analysis) : analysis_(analysis) {}

  void letGo() { gate_.count_down(); }

  bool isTranscriberAvailable() const override { return analysis_.isTranscriberAvailable(); }
  void supportedLocale(std::string_view equivalentTo,
                       UniqueFunction<void(std::optional<std::string>)> completion) override {
    gate_.wait();
    analysis_.supportedLocale(equivalentTo, std::move(completion));
  }
  std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view supportedLocale,
                                                     TranscriberPreset preset) override {
    return analysis_.makeTranscriber(supportedLocale, preset);
  }
  void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>& compatibleWith,
                                UniqueFunction<void(std::optional<AudioFormat>)> completion) override {
    analysis_.bestAvailableAudioFormat(compatibleWith, std::move(completion));
  }
  AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                 const std::vector<std::string>& contextualStrings) override {
    return analysis_.makeAnalyzer(transcriber, contextualStrings);
  }
  AssetInventory& assetInventory() override { return analysis_.assetInventory(); }

 private:
  SpeechAnalysis& analysis_;
  std::latch gate_{1};
};

// A machine whose analysis runs on threads.
struct ThreadedMachine {
  char program[4] = "all";
  char* arguments[1] = {program};
  ThreadedTimeline timeline{3};
  SystemClock clock;
  POSIXProcess process{1, arguments};
  ThreadedMainQueue mainQueue;
  DescriptorInput standardInput{-1};
  LineCollector standardOutput;
  LineCollector standardError;
  MemoryAudioBuffers audioBuffers;
  SimulatedSpeechRecognition speechRecognition{timeline, {}};
  SimulatedSpeechAnalysis speechAnalysis{timeline, {}};
  SpeexAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  ThreadPoolTasks tasks;
};

class SpeechAnalyzerThreadsTest : public testing::Test {
 protected:
  // Waits until no task is left, then until the platform's threads have returned from their last completions.
  // All channels must have ended.
  void finish() {
    auto& context = asio::query(machine_.tasks.executor(), asio::execution::context);
    static_cast<asio::thread_pool&>(context).join();
    machine_.timeline.end();
  }

  ThreadedMachine machine_;
  LineCollector& output = machine_.standardOutput;
  SimulatedSpeechAnalysis& analysis = machine_.speechAnalysis;
  Platform platform = platformOf(machine_);
  JSONLineWriter writer{machine_.clock, output, machine_.standardError};
};

TEST_F(SpeechAnalyzerThreadsTest, ThousandsOfChunksArriveInOrder) {
  AnalysisState state;
  state.prepare.takes = 30;  // so that many chunks wait
  state.utterances = {
      {.partials = {{0, "a"}, {100, "ab"}}, .finalText = "abc", .finalAfter = 200, .start = 0, .end = 0}};
  analysis.setState(state);
  SpeechAnalyzerBackend backend(platform, writer);
  BackendStorm storm(backend, 1, 4);
  for (int session = 0; session < 4; ++session) storm.start("s" + std::to_string(session));
  constexpr int chunks = 1000;
  for (int chunk = 0; chunk < chunks; ++chunk)
    for (int session = 0; session < 4; ++session)
      for (const auto source : allAudioSources) storm.audio("s" + std::to_string(session), source);
  for (int session = 0; session < 4; ++session) storm.stop("s" + std::to_string(session));
  finish();
  storm.expectAnalyzers(analysis.analyses());
  storm.expectEvents(output.events());
  EXPECT_EQ(analysis.analyses().size(), 8u);
  for (const auto& one : analysis.analyses()) EXPECT_EQ(one.buffers.size(), std::size_t{chunks});
}

class ThreadedStormTest : public SpeechAnalyzerThreadsTest,
                          public testing::WithParamInterface<std::uint64_t> {};

TEST_P(ThreadedStormTest, AnyTimingLosesAndMixesNothing) {
  std::mt19937_64 random(GetParam());
  SpeechAnalyzerBackend backend(platform, writer);
  BackendStorm storm(backend, GetParam(), 5);
  for (int i = 0; i < 3000; ++i) {
    if (i % 50 == 0) {
      AnalysisState state;
      for (auto* const operation : {&state.localeLookup, &state.modelLookup, &state.formatLookup,
                                    &state.prepare, &state.finalize, &state.cancel}) {
        operation->takes = static_cast<double>(random() % 4) * static_cast<double>(random() % 4);
        operation->answersInsideCall = random() % 3 == 0;
      }
      state.utterances = {
          {.partials = {{0, "a"}, {0.5, "ab"}}, .finalText = "", .finalAfter = 1.5, .start = 0, .end = 0}};
      analysis.setState(state);
    }
    if (random() % 30 == 0)
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));  // only varies the timing
    storm.step();
  }
  storm.stop("s0");
  storm.stop("s1");
  storm.stopAll();
  finish();
  storm.expectAnalyzers(analysis.analyses());
  storm.expectEvents(output.events());
  EXPECT_GT(storm.channelCount(), 100u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ThreadedStormTest, testing::Range<std::uint64_t>(1, 7));

TEST_F(SpeechAnalyzerThreadsTest, OperationsReturnWhilePlatformBlocks) {
  struct : Platform {
    BlockingSpeechAnalysis speechAnalysis;
  } parts{platform, BlockingSpeechAnalysis(analysis)};
  Platform blockingPlatform = platformOf(parts);
  SpeechAnalyzerBackend backend(blockingPlatform, writer);
  BackendStorm storm(backend, 1, 20);
  // Runs on a separate thread, so that a blocking backend fails the test instead of hanging it.
  auto operations = std::async(std::launch::async, [&] {
    backend.emitStatus();
    for (int session = 0; session < 20; ++session) {
      const auto id = "s" + std::to_string(session);
      storm.start(id);
      for (const auto source : allAudioSources) storm.audio(id, source);
      storm.setSuppressed(id, AudioSource::remote, true);
      storm.setSuppressed(id, AudioSource::remote, false);
      storm.audio(id, AudioSource::remote);
      storm.stop(id);
    }
    backend.stopAll();
  });
  constexpr auto farTooLong = std::chrono::seconds(30);
  EXPECT_EQ(operations.wait_for(farTooLong), std::future_status::ready)
      << "an operation blocks on the platform";
  EXPECT_TRUE(analysis.analyses().empty()) << "the platform has not answered";
  parts.speechAnalysis.letGo();
  operations.get();
  finish();
  storm.expectAnalyzers(analysis.analyses());
}

TEST_F(SpeechAnalyzerThreadsTest, UnansweredChannelsAreReleasedWithPlatform) {
  AnalysisState state;
  state.prepare.takes = std::nullopt;
  analysis.setState(state);
  SpeechAnalyzerBackend backend(platform, writer);
  BackendStorm storm(backend, 1, 2);
  storm.start("s0");
  storm.audio("s0", AudioSource::remote);
  storm.setSuppressed("s0", AudioSource::selfAudio, true);
  storm.stop("s0");
  // Returns only when no task waits for an answer.
  auto finished = std::async(std::launch::async, [this] { finish(); });
  do analysis.abandon();
  while (finished.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready);
  EXPECT_EQ(analysis.analyses().size(), 2u);
  for (const auto& one : analysis.analyses()) {
    EXPECT_TRUE(one.buffers.empty());
    EXPECT_FALSE(one.finalizedAt || one.cancelledAt);
  }
}

}  // namespace
}  // namespace palaver
