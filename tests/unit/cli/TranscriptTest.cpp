#include "cli/Transcript.h"

#include <gtest/gtest.h>

namespace palaver::cli {
namespace {

using nlohmann::json;

Transcript transcript() {
  Transcript transcript("en-US");
  transcript.onStreamStart(1'700'000'000'000);
  const auto add = [&transcript](const json& event) { transcript.onEvent("", event); };
  add({{"type", "transcript.partial"},
       {"source", "remote"},
       {"text", "go"},
       {"startedAt", 1'700'000'000'300.0}});
  add({{"type", "transcript.final"},
       {"source", "remote"},
       {"text", "go <forward>"},
       {"startedAt", 1'700'000'000'300.0},
       {"speechEndedAt", 1'700'000'002'100.0}});
  add({{"type", "transcript.final"},
       {"source", "self"},
       {"text", "yes"},
       {"startedAt", 1'700'000'000'100.0}});
  add({{"type", "helper.error"}, {"message", "x"}});
  return transcript;
}

TEST(TranscriptTest, SubtitlesCountFromFirstSample) {
  EXPECT_EQ(transcript().written(TranscriptFormat::vtt),
            "WEBVTT\n\n00:00:00.100 --> 00:00:00.600\n<v self>yes\n\n"
            "00:00:00.300 --> 00:00:02.100\n<v remote>go &lt;forward&gt;\n\n");
  EXPECT_EQ(transcript().written(TranscriptFormat::srt).substr(0, 2), "1\n");
}

TEST(TranscriptTest, JSONHoldsFinalsInOrder) {
  EXPECT_EQ(json::parse(transcript().written(TranscriptFormat::json)),
            json::parse(R"({"locale": "en-US", "startedAt": 1700000000000.0, "utterances": [
              {"source": "self", "startMs": 100.0, "endMs": 100.0, "text": "yes"},
              {"source": "remote", "startMs": 300.0, "endMs": 2100.0, "text": "go <forward>"}]})"));
  EXPECT_EQ(json::parse(Transcript("ja-JP").written(TranscriptFormat::json)).at("utterances"), json::array());
}

}  // namespace
}  // namespace palaver::cli
