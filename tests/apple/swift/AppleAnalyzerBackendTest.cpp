// Tests the complete analyzer backend on the macOS analysis: host conversations on real threads.
#include <gtest/gtest.h>

#include <array>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "analyzer/SpeechAnalyzerBackend.h"
#include "core/Base64Encoding.h"
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
#include "simulator/machine/SimulatedSpeechRecognition.h"
#include "tests/apple/swift/AppleAnalysisSubject.h"
#include "tests/support/SpeechAnalysisSubjects.h"

namespace palaver {
namespace {

using nlohmann::json;

// Records output as events.
class EventLog final : public OutputStream {
 public:
  void write(std::string_view bytes) override {
    const std::lock_guard guard(lock_);
    text_ += bytes;
    changed_.notify_all();
  }

  std::vector<json> events(const std::string& type = "") const {
    const std::lock_guard guard(lock_);
    return parse(type);
  }

  // Waits for `count` events of a type and returns them.
  std::vector<json> waitFor(const std::string& type, std::size_t count) {
    std::unique_lock lock(lock_);
    EXPECT_TRUE(changed_.wait_for(lock, awaitedDeadline, [&] { return parse(type).size() >= count; }))
        << "events so far:\n"
        << text_;
    return parse(type);
  }

 private:
  std::vector<json> parse(const std::string& type) const {
    std::vector<json> events;
    std::istringstream lines(text_);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
      auto event = json::parse(line);
      if (type.empty() || event.at("type") == type) events.push_back(std::move(event));
    }
    return events;
  }

  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::string text_;
};

// Creates a pool that is never destroyed, as in the helper. A Swift thread may still be leaving a completion
// when the last task has ended.
ThreadPoolTasks& makeTasks() {
  static auto& all = *new std::vector<std::unique_ptr<ThreadPoolTasks>>;
  return *all.emplace_back(std::make_unique<ThreadPoolTasks>());
}

// Connects a host and a helper backend directly.
template <typename Subject>
class Conversation {
 public:
  explicit Conversation(AnalysisQuirks quirks = {}) : behaviour(subject.analysis(), std::move(quirks)) {}

  void say(const std::vector<std::int16_t>& samples, const std::string& session, AudioSource source) {
    constexpr std::size_t chunk = 1600;
    for (std::size_t at = 0; at < samples.size(); at += chunk) {
      const auto end = samples.begin() + static_cast<std::ptrdiff_t>(std::min(at + chunk, samples.size()));
      backend.appendAudio(session, source, 0, 1000 + static_cast<double>(at) / 16,
                          encodePCM({samples.begin() + static_cast<std::ptrdiff_t>(at), end}));
    }
  }

  // Waits until the backend has no tasks. All channels must have been ended.
  void join() {
    auto& context = asio::query(tasks.executor(), asio::execution::context);
    static_cast<asio::thread_pool&>(context).join();
  }

  Subject subject;
  AnalysisBehaviour behaviour;
  AppleSpeechAnalysis analysis;
  EventLog log;

 private:
  char program_[4] = "all";
  std::array<char*, 1> arguments_{program_};
  ThreadedTimeline timeline_{1};
  SystemClock clock_;
  POSIXProcess process_{1, arguments_.data()};
  ThreadedMainQueue mainQueue_;
  DescriptorInput input_{-1};
  EventLog errors_;
  MemoryAudioBuffers audioBuffers_;
  SimulatedSpeechRecognition recognition_{timeline_, {}};
  SpeexAudioConverters audioConverters_;
  SndfileAudioFiles audioFiles_;

 public:
  ThreadPoolTasks& tasks = makeTasks();

 private:
  Platform platform_{clock_,        process_,     mainQueue_, input_,           log,         errors_,
                     audioBuffers_, recognition_, analysis,   audioConverters_, audioFiles_, tasks};
  JSONLineWriter writer_{clock_, log, errors_};

 public:
  SpeechAnalyzerBackend backend{platform_, writer_};
};

using Simulated = Conversation<SimulatedAnalysisSubject>;

std::set<std::string> texts(const std::vector<json>& events) {
  std::set<std::string> texts;
  for (const auto& event : events)
    texts.insert(event.at("source").get<std::string>() + ": " + event.at("text").get<std::string>());
  return texts;
}

TEST(AppleAnalyzerBackend, StatusFollowsModel) {
  Simulated conversation;
  conversation.backend.emitStatus();
  const auto events = conversation.log.waitFor("helper.status", 2);
  EXPECT_EQ(events[0].at("status"), "checking-model");
  EXPECT_EQ(events[1].at("status"), "ready");
  EXPECT_EQ(events[1].at("modelStatus"), "installed");
  conversation.join();
}

TEST(AppleAnalyzerBackend, BothSourcesAreTranscribed) {
  Simulated conversation;
  conversation.backend.startSession("s1", "ja-JP", {});
  const auto speech = conversation.subject.speech();
  for (const auto source : allAudioSources) conversation.say(speech, "s1", source);
  conversation.log.waitFor("transcript.partial", 6);
  conversation.backend.stopSession("s1");
  const auto finals = conversation.log.waitFor("transcript.final", 2);
  conversation.join();
  EXPECT_EQ(texts(finals),
            (std::set<std::string>{"remote: go forward ten meters", "self: go forward ten meters"}));
  for (const auto& event : finals) {
    EXPECT_EQ(event.at("startedAt"), 1125);
    EXPECT_EQ(event.at("speechEndedAt"), 1875);
  }
  EXPECT_EQ(conversation.log.events("session.ready").size(), 2U);
  EXPECT_TRUE(conversation.log.events("helper.error").empty());
  EXPECT_TRUE(conversation.behaviour.waitForObjects(0));
}

TEST(AppleAnalyzerBackend, SilentSessionReleasesItsAnalyzers) {
  Simulated conversation({.finishingWithoutAudioIsNeverAnswered = true});
  conversation.backend.startSession("s1", "ja-JP", {});
  conversation.log.waitFor("session.ready", 2);
  conversation.backend.stopSession("s1");
  conversation.join();
  EXPECT_TRUE(conversation.behaviour.waitForPreparedAnalyzers(0));
  EXPECT_TRUE(conversation.behaviour.waitForObjects(0));
  EXPECT_TRUE(conversation.log.events("helper.error").empty());
}

TEST(AppleAnalyzerBackend, MutingDropsUnfinishedText) {
  Simulated conversation;
  conversation.backend.startSession("s1", "ja-JP", {});
  conversation.say(conversation.subject.speech(), "s1", AudioSource::remote);
  conversation.log.waitFor("transcript.partial", 3);
  conversation.backend.setSuppressed("s1", AudioSource::remote, true);
  conversation.backend.stopSession("s1");
  conversation.join();
  EXPECT_TRUE(conversation.log.events("transcript.final").empty());
  EXPECT_TRUE(conversation.log.events("helper.error").empty());
  EXPECT_TRUE(conversation.behaviour.waitForObjects(0));
}

TEST(AppleAnalyzerBackend, SessionOverLimitFailsAndNextSucceeds) {
  Simulated conversation({.maxPreparedAnalyzers = 3});
  conversation.backend.startSession("s1", "ja-JP", {});
  conversation.log.waitFor("session.ready", 2);
  conversation.backend.startSession("s2", "ja-JP", {});
  conversation.log.waitFor("session.ready", 3);
  const auto speech = conversation.subject.speech();
  for (const auto source : allAudioSources) conversation.say(speech, "s2", source);
  const auto errors = conversation.log.waitFor("helper.error", 10);
  for (const auto& error : errors)
    EXPECT_EQ(error.at("message"), "SpeechAnalyzer input failed: Too many simultaneous requests");
  EXPECT_EQ(errors.size(), 10U) << "one for each chunk of one source";
  for (const auto* const session : {"s1", "s2"}) conversation.backend.stopSession(session);
  EXPECT_TRUE(conversation.behaviour.waitForPreparedAnalyzers(0));
  conversation.backend.startSession("s3", "ja-JP", {});
  conversation.log.waitFor("session.ready", 5);
  conversation.backend.stopSession("s3");
  conversation.join();
}

TEST(AppleAnalyzerBackend, NonFiniteTimesMapToAudioStart) {
  Simulated conversation;
  auto& simulated = static_cast<SimulatedSpeechAnalysis&>(conversation.subject.analysis());
  conversation.backend.startSession("s1", "ja-JP", {});
  conversation.say(std::vector<std::int16_t>(1600), "s1", AudioSource::remote);
  conversation.log.waitFor("session.ready", 2);
  const auto times = std::numeric_limits<double>::quiet_NaN();
  simulated.emit(1, TranscriptionResult{"nowhere", times, times, true});
  simulated.emit(2, TranscriptionResult{"nowhere", times, times, true});
  for (const auto& event : conversation.log.waitFor("transcript.final", 2)) {
    EXPECT_TRUE(event.at("utteranceId").get<std::string>().ends_with("-0"));
    EXPECT_EQ(event.at("startedAt"), event.at("speechEndedAt"));
  }
  conversation.backend.stopSession("s1");
  conversation.join();
}

TEST(AppleAnalyzerBackend, RecordedSpeechIsTranscribed) {
  Conversation<RecognizedAnalysisSubject> conversation;
  conversation.backend.startSession("s1", "en-US", {});
  conversation.say(conversation.subject.speech(), "s1", AudioSource::selfAudio);
  conversation.backend.stopSession("s1");
  const auto finals = conversation.log.waitFor("transcript.final", 1);
  conversation.join();
  EXPECT_EQ(texts(finals), std::set<std::string>{"self: go forward ten meters"});
  EXPECT_FALSE(conversation.log.events("transcript.partial").empty());
  EXPECT_TRUE(conversation.log.events("helper.error").empty());
}

}  // namespace
}  // namespace palaver
