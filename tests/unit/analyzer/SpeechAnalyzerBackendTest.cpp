// Tests the backend in virtual time, with many orders of simultaneous events.
#include "analyzer/SpeechAnalyzerBackend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "core/Base64Encoding.h"
#include "core/JSONLineWriter.h"
#include "platform/MainQueue.h"
#include "platform/SpeechAnalysis.h"
#include "platform/StandardStreams.h"
#include "simulator/scenario/SyntheticAudio.h"
#include "tests/support/ConversationTest.h"
#include "tests/unit/analyzer/BackendStorm.h"

namespace palaver {

namespace {

using nlohmann::json;

constexpr OperatingSystemVersion macOS26{26, 0, 0};

SimulatedAnalysisUtterance words() {
  return {.partials = {{0, "a"}, {0.5, "ab"}}, .finalText = "", .finalAfter = 1.5, .start = 0, .end = 0};
}

class SpeechAnalyzerBackendTest : public ConversationTest {
 protected:
  SpeechAnalyzerBackendTest() { settings.macOS = macOS26; }

  void audioOf(double time, const std::string& sessionId, const std::string& source) {
    host(time, {{"type", "audio"},
                {"sessionId", sessionId},
                {"source", source},
                {"sequence", 0},
                {"capturedAt", settings.startsAt + time},
                {"pcmBase64", encodePCM(samplesOfLoudness(0.1, 1600))}});
  }
};

TEST_F(SpeechAnalyzerBackendTest, Serves100ConcurrentSessions) {
  constexpr int count = 100;
  constexpr int chunks = 10;
  settings.analysis.utterances = {
      {.partials = {{300, "half"}}, .finalText = "whole", .finalAfter = std::nullopt, .start = 0, .end = 1}};
  for (int i = 0; i < count; ++i) {
    const auto id = "s" + std::to_string(i);
    host(100, {{"type", "session.start"}, {"sessionId", id}});
    for (int chunk = 0; chunk < chunks; ++chunk)
      for (const auto* const source : {"remote", "self"}) audioOf(200 + 100 * chunk, id, source);
    host(2000, {{"type", "session.stop"}, {"sessionId", id}});
  }
  EXPECT_EQ(play(), std::nullopt);
  EXPECT_EQ(events("session.ready").size(), 2u * count);
  EXPECT_EQ(events("session.stopped").size(), std::size_t{count});
  EXPECT_EQ(events("helper.error").size(), 0u);
  for (const auto* const type : {"transcript.partial", "transcript.final"}) {
    std::set<std::string> utterances;
    for (const auto& event : events(type)) {
      utterances.insert(event.at("utteranceId"));
      EXPECT_TRUE(event.at("utteranceId")
                      .get<std::string>()
                      .starts_with(event.at("sessionId").get<std::string>() + "-" +
                                   event.at("source").get<std::string>() + "-"));
    }
    EXPECT_EQ(utterances.size(), 2u * count) << "one per source and session";
    EXPECT_EQ(events(type).size(), 2u * count);
  }
  for (const auto& analysis : machine().speechAnalysis.analyses())
    EXPECT_EQ(analysis.buffers.size(), std::size_t{chunks});
}

// Returns the output with its times, without the channel ids.
std::multiset<std::string> timedEvents(SimulatedPlatform& machine) {
  std::multiset<std::string> timed;
  for (const auto& line : machine.standardOutput.lines()) {
    auto event = json::parse(line.text);
    event.erase("utteranceId");
    timed.insert(std::to_string(line.time) + " " + event.dump());
  }
  return timed;
}

// Starts sessions at the same time, feeds their chunks at the same times and stops them at the same time.
std::multiset<std::string> eventsWithSeed(std::optional<std::uint64_t> seed) {
  SimulatedSettings settings;
  settings.macOS = macOS26;
  settings.seed = seed;
  settings.analysis.utterances = {
      {.partials = {{100, "a"}, {200, "ab"}}, .finalText = "abc", .finalAfter = 300, .start = 0, .end = 0.2}};
  SimulatedPlatform machine(settings);
  const auto program = [&](Platform& platform) {
    JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
    SpeechAnalyzerBackend backend(platform, writer);
    const auto chunk = encodePCM(samplesOfLoudness(0.1, 1600));
    const auto forAll = [&](double time, auto operation) {
      machine.scheduler.schedule(time, Timeline::Context::background, &machine, [&platform, operation] {
        for (const auto* const id : {"x", "y", "z"})
          for (const auto source : allAudioSources)
            platform.mainQueue.async([operation, id, source] { operation(id, source); });
      });
    };
    const auto start = [&](std::string_view id, AudioSource source) {
      if (source == AudioSource::remote) backend.startSession(id, "ja-JP", {});
    };
    const auto stop = [&](std::string_view id, AudioSource source) {
      if (source == AudioSource::remote) backend.stopSession(id);
    };
    const auto append = [&](std::string_view id, AudioSource source) {
      backend.appendAudio(id, source, 0, 1000, chunk);
    };
    backend.emitStatus();
    forAll(100, start);
    for (int i = 0; i < 5; ++i) forAll(200 + 100 * i, append);
    forAll(800, [&](auto id, auto source) { backend.setSuppressed(id, source, id == "y"); });
    forAll(900, [&](auto id, auto source) { backend.setSuppressed(id, source, false); });
    forAll(1000, append);
    forAll(1100, start);
    forAll(1200, stop);
    platform.mainQueue.run();
  };
  machine.run(program, 1e6);
  return timedEvents(machine);
}

TEST(SpeechAnalyzerBackendOrder, EventsAndTimesAreSameInEveryOrder) {
  const auto expected = eventsWithSeed(std::nullopt);
  const std::size_t statuses = 2, readies = 6 + 2 + 6, suppressions = 12, stops = 3 + 3;
  const std::size_t partials = 2 * 6 + 2, finals = 6 + 2 + 6;
  EXPECT_EQ(expected.size(), statuses + readies + suppressions + stops + partials + finals);
  for (std::uint64_t seed = 1; seed <= 50; ++seed)
    EXPECT_EQ(eventsWithSeed(seed), expected) << "seed " << seed;
}

TEST(SpeechAnalyzerBackendName, IsItsImplementation) {
  SimulatedPlatform machine;
  machine.run(
      [](Platform& platform) {
        JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
        EXPECT_EQ(SpeechAnalyzerBackend(platform, writer).implementationName(), "speech-analyzer");
      },
      1);
}

// After stopAll() the process normally ends before a task runs, so this drives the backend without a process.
TEST(SpeechAnalyzerBackendEnd, StopAllCancelsEveryChannelAndForgetsSessions) {
  SimulatedSettings settings;
  settings.macOS = macOS26;
  settings.analysis.utterances = {
      {.partials = {}, .finalText = "unheard", .finalAfter = std::nullopt, .start = 0, .end = 0}};
  SimulatedPlatform machine(settings);
  machine.run(
      [&machine](Platform& platform) {
        JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
        SpeechAnalyzerBackend backend(platform, writer);
        const auto chunk = encodePCM(samplesOfLoudness(0.1, 1600));
        const auto at = [&](double time, auto operation) {
          machine.scheduler.schedule(time, Timeline::Context::background, &machine,
                                     [&platform, operation] { platform.mainQueue.async(operation); });
        };
        at(100, [&] {
          backend.startSession("x", "ja-JP", {});
          backend.startSession("y", "ja-JP", {});
        });
        at(200, [&] { backend.appendAudio("x", AudioSource::remote, 0, 1000, chunk); });
        at(300, [&] { backend.stopAll(); });
        at(400, [&] {
          backend.appendAudio("x", AudioSource::remote, 0, 1000, chunk);
          for (const auto* const id : {"x", "y"}) backend.stopSession(id);
          backend.stopAll();
        });
        platform.mainQueue.run();
      },
      1e6);
  EXPECT_EQ(machine.standardOutput.lines().size(), 4u) << "a session.ready per source, and nothing else";
  const auto analyses = machine.speechAnalysis.analyses();
  ASSERT_EQ(analyses.size(), 4u);
  EXPECT_EQ(analyses[0].buffers.size(), 1u);
  for (const auto& analysis : analyses) {
    EXPECT_EQ(analysis.cancelledAt, 300);
    EXPECT_EQ(analysis.finalizedAt, std::nullopt);
  }
}

class BackendStormTest : public testing::TestWithParam<std::uint64_t> {};

TEST_P(BackendStormTest, ChunkReachesChannelOfItsArrival) {
  const auto seed = GetParam();
  SimulatedSettings settings;
  settings.macOS = macOS26;
  settings.seed = seed;
  settings.analysis.utterances = {words()};
  SimulatedPlatform machine(settings);
  std::mt19937_64 random(seed);
  std::vector<json> events;
  const auto program = [&](Platform& platform) {
    JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
    SpeechAnalyzerBackend backend(platform, writer);
    BackendStorm storm(backend, seed, 3);
    double time = 0;
    for (int i = 0; i < 600; ++i) {
      time += static_cast<double>(random() % 3);
      // From here every operation takes 0 to 20 ms, often 0.
      auto state = settings.analysis;
      for (auto* const operation : {&state.localeLookup, &state.modelLookup, &state.formatLookup,
                                    &state.prepare, &state.finalize, &state.cancel}) {
        operation->takes = static_cast<double>(random() % 2 * (random() % 20));
        operation->answersInsideCall = random() % 4 == 0;
      }
      machine.scheduler.schedule(time, Timeline::Context::background, &storm,
                                 [&machine, &platform, &storm, state] {
                                   machine.speechAnalysis.setState(state);
                                   platform.mainQueue.async([&storm] { storm.step(); });
                                 });
    }
    machine.scheduler.schedule(time + 100, Timeline::Context::background, &storm, [&] {
      platform.mainQueue.async([&] {
        storm.stop("s0");
        storm.stop("s1");
        storm.stopAll();
      });
    });
    machine.scheduler.schedule(time + 1000, Timeline::Context::background, &storm, [&] {
      for (const auto& line : machine.standardOutput.lines()) events.push_back(json::parse(line.text));
      storm.expectEvents(events);
      storm.expectAnalyzers(machine.speechAnalysis.analyses());
      EXPECT_GT(storm.channelCount(), 20u);
    });
    platform.mainQueue.run();
  };
  machine.run(program, 1e6);
  EXPECT_FALSE(events.empty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, BackendStormTest, testing::Range<std::uint64_t>(1, 51));

}  // namespace
}  // namespace palaver
