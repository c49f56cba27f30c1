// Tests the legacy backend on the SFSpeechRecognizer adapter, with the framework's believed deviations from
// its documentation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "app/Helper.h"
#include "tests/apple/support/AppleSimulation.h"
#include "tests/apple/support/MainRunLoop.h"
#include "tests/support/ConversationTest.h"

namespace palaver {
namespace {

using nlohmann::json;
using testing::ElementsAre;

class AppleConversation : public ConversationTest {
 protected:
  AppleConversation() {
    settings.recognition.answersAfterEndAudio = 100;
    settings.recognition.utterances = {{{{200, "one"}, {500, "one two"}}, "one two three"}};
    host(100, {{"type", "session.start"}, {"sessionId", "a"}});
  }

  // Sends a second of voice and a second of silence, starting at `from`.
  void utterance(double from, const std::string& source = "remote") {
    for (int chunk = 0; chunk < 20; ++chunk) audio(from + chunk * 100.0, chunk < 10 ? 0.1 : 0, source);
  }
  std::optional<int> play(const Quirks& quirks) {
    constexpr double oneDay = 24.0 * 60 * 60 * 1000;  // ms
    return machine().run(
        [&](Platform& simulated) {
          AppleSimulation apple(machine());
          apple.behaviour.quirks = quirks;
          Platform platform = apple.over(simulated);
          runHelper(platform);
        },
        oneDay);
  }
  std::vector<std::string> texts(const std::string& type, const std::string& source = "remote") {
    std::vector<std::string> texts;
    for (const auto& event : events(type))
      if (event.value("source", source) == source)
        texts.push_back(event.at(type == "helper.error" ? "message" : "text"));
    return texts;
  }
};

TEST_F(AppleConversation, UtteranceIsTranscribed) {
  utterance(1000);
  play({});
  EXPECT_THAT(texts("transcript.partial"), ElementsAre("one", "one two"));
  EXPECT_THAT(texts("transcript.final"), ElementsAre("one two three"));
  EXPECT_TRUE(events("helper.error").empty());
}

TEST_F(AppleConversation, PartialsWithoutTimesStartAtAudioStart) {
  utterance(1000);
  play({.partialsHaveNoTimes = true});
  const auto partials = events("transcript.partial");
  ASSERT_EQ(partials.size(), 2U);
  for (const auto& partial : partials) EXPECT_EQ(partial.at("startedAt"), settings.startsAt + 1000);
  const auto finals = events("transcript.final");
  ASSERT_EQ(finals.size(), 1U);
  EXPECT_GT(finals[0].at("speechEndedAt").get<double>(), settings.startsAt + 1000);
}

TEST_F(AppleConversation, EmptyFinalFallsBackToLatestPartial) {
  utterance(1000);
  play({.finalIsEmpty = true});
  ASSERT_THAT(texts("transcript.final"), ElementsAre("one two"));
  EXPECT_EQ(events("transcript.final")[0].at("endpointing").at("reason"), "fallback");
}

TEST_F(AppleConversation, AnswerOfCancelledTaskIsIgnored) {
  audio(1000);
  audio(1100);
  audio(1200);
  host(1500, {{"type", "source.suppress"}, {"sessionId", "a"}, {"source", "remote"}, {"suppressed", true}});
  play({.errorAfterCancel = PlatformError("kLSRErrorDomain", 301, "Recognition request was canceled")});
  EXPECT_TRUE(events("transcript.final").empty());
  EXPECT_THAT(texts("helper.error"), testing::Not(testing::Contains(testing::HasSubstr("canceled"))));
}

// A meeting needs two tasks. If only one is served, the other source is silent without an error.
TEST_F(AppleConversation, UnservedSourceIsSilent) {
  for (int chunk = 0; chunk < 20; ++chunk) {
    audio(1000 + chunk * 100.0, chunk < 10 ? 0.1 : 0, "remote");
    audio(1050 + chunk * 100.0, chunk < 10 ? 0.1 : 0, "self");
  }
  host(5000, {{"type", "session.stop"}, {"sessionId", "a"}});
  play({.onlyFirstTaskIsServed = true});
  EXPECT_THAT(texts("transcript.final", "remote"), ElementsAre("one two three"));
  EXPECT_TRUE(texts("transcript.final", "self").empty());
  EXPECT_TRUE(events("helper.error").empty());
}

TEST_F(AppleConversation, FailedStartIsReportedAndNextVoiceRetries) {
  audio(1000);
  audio(2000);
  // The adapter's own errors also arrive on the main dispatch queue. The first answers the probe for
  // Dictation.
  for (const double time : {10, 1050, 2050})
    machine().scheduler.schedule(time, Timeline::Context::mainThreadCallback, this, drainMainQueue);
  play({.taskRaises = "the service is not there"});
  const auto errors = texts("helper.error");
  EXPECT_EQ(errors.size(), 2U);
  for (const auto& error : errors) EXPECT_EQ(error, "Speech recognition failed: the service is not there");
}

}  // namespace
}  // namespace palaver
