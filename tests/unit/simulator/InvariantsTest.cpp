#include "simulator/scenario/Invariants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/MainQueue.h"
#include "platform/StandardStreams.h"
#include "simulator/scenario/ScenarioRunner.h"

namespace palaver {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string status =
    R"({"authorization":"authorized","available":true,"dictation":"enabled","implementation":"sf-speech-recognizer",)"
    R"("message":"On-device Japanese speech recognition is ready.","modelStatus":"installed","protocolVersion":1,)"
    R"("status":"ready","type":"helper.status"})";
const std::string ready =
    R"({"available":true,"implementation":"sf-speech-recognizer","locale":"ja-JP","sessionId":"a","type":"session.ready"})";
const std::string stopped = R"({"at":1700000000000,"sessionId":"a","type":"session.stopped"})";
const std::string muted =
    R"({"at":1700000000000,"sessionId":"a","source":"remote","suppressed":true,"type":"source.suppressed"})";
const JSON start = {{"host", {{"type", "session.start"}, {"sessionId", "a"}}}};
const JSON stop = {{"host", {{"type", "session.stop"}, {"sessionId", "a"}}}};
const JSON mute = {
    {"host", {{"type", "source.suppress"}, {"sessionId", "a"}, {"source", "remote"}, {"suppressed", true}}}};

std::string partial(const std::string& text, int utterance = 1) {
  return R"({"sessionId":"a","source":"remote","startedAt":1,"text":")" + text +
         R"(","transcribedAt":1700000000000,"type":"transcript.partial","utteranceId":"00000000-0000-4000-8000-00000000000)" +
         std::to_string(utterance) + "\"}";
}

std::string final(const std::string& text, int utterance = 1) {
  return R"({"endpointing":{"minSilenceMs":900,"provider":"apple-sfspeech","reason":"silence","threshold":0.008},)"
         R"("latencyMs":1699999999999,"sessionId":"a","source":"remote","speechEndedAt":1,"startedAt":1,"text":")" +
         text +
         R"(","transcribedAt":1700000000000,"type":"transcript.final","utteranceId":"00000000-0000-4000-8000-00000000000)" +
         std::to_string(utterance) + "\"}";
}

// Plays a program that writes the lines at time 0. Returns the broken invariant and what is wrong; empty if
// none is.
std::string broken(const std::vector<JSON>& conversation, const std::vector<std::string>& lines) {
  const JSON file{{"title", "t"}, {"check", "invariants"}, {"until", 1000}, {"conversation", conversation}};
  auto report = play(readScenario(file, "t"), [&](SimulatedPlatform& machine, Platform& platform) {
                  for (const auto& line : lines) platform.standardOutput.write(line + "\n");
                  machine.mainQueue.run();
                }).value_or("");
  report.erase(0, report.find_first_not_of(' '));
  return report.substr(0, report.find('\n'));
}

TEST(Invariants, EveryRuleOfProtocolIsChecked) {
  const auto all = invariants();
  for (const auto& rule : ProtocolDescription::shared().ruleIds())
    EXPECT_TRUE(std::ranges::any_of(all, [&](const auto& invariant) { return invariant.first == rule; }))
        << rule;
}

TEST(Invariants, CorrectConversationBreaksNone) {
  EXPECT_THAT(broken({start, stop}, {status, ready, partial("a"), final("a"), stopped}), IsEmpty());
}

TEST(Invariants, UnsortedKeysBreakLineForm) {
  EXPECT_THAT(broken({}, {status, R"({"sentAt":0,"helperAt":0,"type":"pong"})"}), StartsWith("line-form "));
}

TEST(Invariants, LineWithoutEndBreaksLineForm) {
  const JSON file{{"title", "t"}, {"check", "invariants"}, {"until", 1000}, {"conversation", JSON::array()}};
  const auto report = play(readScenario(file, "t"), [](SimulatedPlatform& machine, Platform& platform) {
    platform.standardOutput.write(status);
    machine.mainQueue.run();
  });
  EXPECT_THAT(report.value_or(""), HasSubstr("line-form is broken"));
}

TEST(Invariants, UndocumentedKeyBreaksEventForm) {
  EXPECT_THAT(
      broken({start}, {status, R"({"available":true,"extra":1,)" + ready.substr(ready.find("\"impl"))}),
      AllOf(StartsWith("event-form "), HasSubstr("undocumented key extra")));
}

TEST(Invariants, MissingAnswerBreaksAnswers) {
  EXPECT_THAT(broken({start}, {status}), StartsWith("answers "));
}

TEST(Invariants, AnswerWithoutCommandBreaksAnswers) {
  EXPECT_THAT(broken({}, {status, ready}), StartsWith("answers "));
}

TEST(Invariants, SecondAnswerBreaksAnswers) {
  EXPECT_THAT(broken({start, stop}, {status, ready, stopped, stopped}), HasSubstr("stopped"));
}

TEST(Invariants, SecondFinalBreaksOneFinal) {
  EXPECT_THAT(broken({start}, {status, ready, final("a"), final("b")}), StartsWith("one-final "));
}

TEST(Invariants, PartialAfterFinalBreaksFinalLast) {
  EXPECT_THAT(broken({start}, {status, ready, final("a"), partial("b")}), StartsWith("final-last "));
}

TEST(Invariants, OtherIdBreaksSharedId) {
  EXPECT_THAT(broken({start}, {status, ready, partial("a", 1), final("a", 2)}), StartsWith("shared-id "));
}

TEST(Invariants, LostWordsBreakWordsFlushed) {
  EXPECT_THAT(broken({start, stop}, {status, ready, partial("a"), stopped}), StartsWith("words-flushed "));
}

TEST(Invariants, TranscriptOfMutedSourceBreaksMutedSilent) {
  EXPECT_THAT(broken({start, mute}, {status, ready, muted, partial("a")}), StartsWith("muted-silent "));
}

TEST(Invariants, TranscriptOfStoppedSessionBreaksStoppedSilent) {
  EXPECT_THAT(broken({start, stop}, {status, ready, stopped, final("a")}), StartsWith("stopped-silent "));
}

TEST(Invariants, LostVoiceBreaksVoiceRecognized) {
  EXPECT_THAT(broken({start, {{"audio", "voice"}}}, {status, ready}), StartsWith("voice-recognized "));
}

TEST(Invariants, SkewedClockBreaksClockOrder) {
  const std::string pong = R"({"helperAt":1700000000001,"sentAt":0,"type":"pong"})";
  EXPECT_THAT(broken({{{"host", {{"type", "ping"}}}}}, {status, pong}), StartsWith("clock-order "));
}

TEST(Invariants, UnaskedExitBreaksExitStatus) {
  const JSON file{{"title", "t"}, {"check", "invariants"}, {"conversation", JSON::array()}};
  const auto report = play(readScenario(file, "t"), [](SimulatedPlatform&, Platform& platform) {
    platform.standardOutput.write(status + "\n");
    platform.process.exit(0);
  });
  EXPECT_THAT(report.value_or(""), HasSubstr("exit-status is broken"));
}

TEST(Invariants, ScenarioWithExpectedOutputCannotCheckThem) {
  const JSON file{
      {"title", "t"}, {"check", "invariants"}, {"conversation", {{{"at", 0}, {"out", {{"type", "pong"}}}}}}};
  EXPECT_THROW(readScenario(file, "t"), FileError);
}

TEST(ProtocolDescription, ErrorTextHasOneCode) {
  const auto& errors = ProtocolDescription::shared().errorsOf("pcmBase64 is not valid Base64");
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors.front()->code, "payload-not-base64");
  EXPECT_TRUE(ProtocolDescription::shared().errorsOf("something else").empty());
}

TEST(HostInput, PayloadIsDecodedStrictly) {
  EXPECT_THAT(decodePayload("AQD//w==").samples, ::testing::ElementsAre(1, -1));
  // The helper ignores bits of no byte.
  EXPECT_THAT(decodePayload("AQD//x==").samples, ::testing::ElementsAre(1, -1));
  EXPECT_EQ(decodePayload("AQD//w=").error, "payload-not-base64");
  EXPECT_EQ(decodePayload("A===").error, "payload-not-base64");
  EXPECT_EQ(decodePayload("AAAA").error, "payload-odd-length");
  EXPECT_FALSE(decodePayload("").error);
}

}  // namespace
}  // namespace palaver
