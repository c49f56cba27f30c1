#include "cli/MeetingReport.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "core/Base64Encoding.h"

namespace palaver::cli {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr double start = 1'700'000'000'000;

class MeetingReportTest : public testing::Test {
 protected:
  MeetingReportTest() {
    recorded.startedAt = start;
    recorded.end = "exit status 0";
  }
  void host(double at, const json& command) {
    recorded.pieces.push_back({at, Speaker::host, command.dump() + "\n"});
  }
  void helper(double at, const json& event) {
    recorded.pieces.push_back({at, Speaker::helper, event.dump() + "\n"});
  }
  void audio(double at, std::int16_t sample, const char* source = "remote") {
    host(at, {{"type", "audio"},
              {"source", source},
              {"capturedAt", start + at - 100},
              {"pcmBase64", encodePCM(std::vector<std::int16_t>(1600, sample))}});
  }
  void final(double at, const std::string& text, double latency, const char* reason = "silence") {
    helper(at, {{"type", "transcript.final"},
                {"source", "remote"},
                {"text", text},
                {"startedAt", start + 100},
                {"speechEndedAt", start + at - latency},
                {"latencyMs", latency},
                {"endpointing", {{"reason", reason}, {"minSilenceMs", 900}}}});
  }

  RecordedConversation recorded;
};

TEST_F(MeetingReportTest, ChunksHaveTheirLoudnessAndGapsAreFound) {
  audio(100, 3277);
  audio(200, 0);
  audio(700, 0);
  audio(800, 0, "self");
  const auto meeting = meetingOf(recorded);
  const auto& remote = meeting.sources.at("remote");
  ASSERT_EQ(remote.chunks.size(), 3U);
  EXPECT_NEAR(remote.chunks[0].loudness, 0.1, 0.001);
  EXPECT_EQ(remote.chunks[0].milliseconds, 100);
  ASSERT_EQ(remote.gaps.size(), 1U);
  EXPECT_EQ(remote.gaps[0].milliseconds, 400);
  EXPECT_TRUE(meeting.sources.at("self").gaps.empty());
}

TEST_F(MeetingReportTest, LatencyIsShownApartFromTheWaitForThePause) {
  for (const double latency : {1000.0, 1100.0, 1200.0}) final(3000, "a", latency);
  final(4000, "b", 50, "flush");
  const auto page = htmlPage(meetingOf(recorded), "t");
  EXPECT_THAT(page, HasSubstr("<td>remote</td><td class=\"number\">4</td><td class=\"number\">1000 ms</td>"
                              "<td class=\"number\">1200 ms</td><td class=\"number\">100 ms</td>"
                              "<td class=\"number\">300 ms</td>"));
}

TEST_F(MeetingReportTest, PercentilesAreTheNearestRank) {
  EXPECT_EQ(percentile({}, 0.5), std::nullopt);
  EXPECT_EQ(percentile({7}, 0), 7);
  EXPECT_EQ(percentile({4, 1, 3, 2}, 0.5), 2);
  EXPECT_EQ(percentile({4, 1, 3, 2}, 0.95), 4);
}

TEST_F(MeetingReportTest, ErrorsAreCountedByCode) {
  for (const char* locale : {"xx-XX", "yy-YY"})
    helper(1,
           {{"type", "helper.error"}, {"message", std::string("Unsupported recognition locale: ") + locale}});
  helper(2, {{"type", "helper.error"}, {"code", "model-missing"}, {"message", {{"characters", 5}}}});
  const auto meeting = meetingOf(recorded);
  EXPECT_EQ(meeting.errors.at("locale-unsupported").count, 2U);
  EXPECT_EQ(meeting.errors.at("locale-unsupported").text, "Unsupported recognition locale: xx-XX");
  EXPECT_EQ(meeting.errors.at("model-missing").count, 1U);
}

TEST_F(MeetingReportTest, ClockOffsetComesFromTheFirstPing) {
  host(500, {{"type", "ping"}, {"sentAt", 1}});
  helper(501, {{"type", "pong"}, {"helperAt", start + 530}});
  host(900, {{"type", "ping"}, {"sentAt", 2}});
  helper(901, {{"type", "pong"}, {"helperAt", start}});
  EXPECT_EQ(meetingOf(recorded).clockOffset, 30);
}

TEST_F(MeetingReportTest, WordsCannotBecomeMarkup) {
  final(3000, "<script>alert(1)</script> & \"quoted\"", 1000);
  const auto meeting = meetingOf(recorded);
  const auto page = htmlPage(meeting, "<b>title</b>");
  EXPECT_THAT(page, Not(HasSubstr("<script")));
  EXPECT_THAT(page, Not(HasSubstr("<b>")));
  EXPECT_THAT(page, HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt; &amp; &quot;quoted&quot;"));
  EXPECT_THAT(page, Not(HasSubstr("http://")));
  EXPECT_THAT(page, Not(HasSubstr("https://")));
  EXPECT_THAT(vttOf(captionsOf(meeting)), HasSubstr("<v remote>&lt;script&gt;"));
}

TEST_F(MeetingReportTest, SubtitlesCountFromTheStart) {
  final(3'725'000, "one\n\ntwo", 1000);
  EXPECT_EQ(srtOf(captionsOf(meetingOf(recorded))), "1\n00:00:00,100 --> 01:02:04,000\nremote: one two\n\n");
  EXPECT_EQ(vttOf(captionsOf(meetingOf(recorded))),
            "WEBVTT\n\n00:00:00.100 --> 01:02:04.000\n<v remote>one two\n\n");
}

TEST_F(MeetingReportTest, LinesMayArriveInPiecesAndWithNonsense) {
  recorded.pieces = {
      {1, Speaker::helper, "no json\n{\"type\":\"helper.st"},
      {2, Speaker::helper, "atus\",\"implementation\":\"speech-analyzer\"}\n[1]\n{\"type\":7}\n"},
      {3, Speaker::host, "{\"type\":\"audio\",\"pcmBase64\":\"?\"}\n"}};
  const auto meeting = meetingOf(recorded);
  EXPECT_EQ(meeting.implementation, "speech-analyzer");
  EXPECT_FALSE(htmlPage(meeting, "t").empty());
}

TEST_F(MeetingReportTest, EmptyMeetingHasAPage) {
  EXPECT_THAT(htmlPage(meetingOf({}), "t"), HasSubstr("no status from the helper"));
}

}  // namespace
}  // namespace palaver::cli
