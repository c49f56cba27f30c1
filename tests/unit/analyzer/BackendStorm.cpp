#include "tests/unit/analyzer/BackendStorm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "core/Base64Encoding.h"

namespace palaver {

using nlohmann::json;

void BackendStorm::step() {
  const auto die = [this](int sides) { return static_cast<int>(random_() % static_cast<unsigned>(sides)); };
  const auto sessionId = "s" + std::to_string(die(sessionCount_));
  const auto source = die(2) == 0 ? AudioSource::remote : AudioSource::selfAudio;
  switch (die(20)) {
    case 0:
      return start(sessionId);
    case 1:
      return stop(sessionId);
    case 2:
    case 3:
      return setSuppressed(sessionId, source, true);
    case 4:
    case 5:
    case 6:
      return setSuppressed(sessionId, source, false);
    default:
      if (!sessions_[sessionId].isOpen && die(3) == 0) return start(sessionId);
      return audio(sessionId, source);
  }
}

void BackendStorm::open(Session& session, AudioSource source) {
  session.channels[source] = channels_.size();
  channels_.push_back({session.start, {}, End::none});
  ++readies_;
}

void BackendStorm::close(Session& session, AudioSource source, End end) {
  const auto channel = session.channels.find(source);
  if (channel == session.channels.end()) return;
  channels_[channel->second].end = end;
  session.channels.erase(channel);
}

void BackendStorm::start(const std::string& sessionId) {
  auto& session = sessions_[sessionId];
  if (session.isOpen) answers_.emplace_back("session.stopped", sessionId, "");
  for (const auto source : allAudioSources) close(session, source, End::finished);
  session = {"start " + std::to_string(starts_++), true, {}, {}};
  for (const auto source : allAudioSources) open(session, source);
  const std::vector<std::string_view> vocabulary{session.start};
  backend_.startSession(sessionId, "ja-JP", vocabulary);
}

void BackendStorm::stop(const std::string& sessionId) {
  auto& session = sessions_[sessionId];
  if (session.isOpen) answers_.emplace_back("session.stopped", sessionId, "");
  for (const auto source : allAudioSources) close(session, source, End::finished);
  session = {};
  backend_.stopSession(sessionId);
}

void BackendStorm::setSuppressed(const std::string& sessionId, AudioSource source, bool suppressed) {
  auto& session = sessions_[sessionId];
  if (suppressed) {
    session.suppressed.insert(source);
    close(session, source, End::cancelled);
  } else if (session.suppressed.erase(source) > 0 && session.isOpen) {
    open(session, source);
  }
  answers_.emplace_back("source.suppressed", sessionId, rawValue(source));
  backend_.setSuppressed(sessionId, source, suppressed);
}

void BackendStorm::audio(const std::string& sessionId, AudioSource source) {
  auto& session = sessions_[sessionId];
  const auto id = ++chunks_;
  const double capturedAt = 1000.0 * id;
  captures_[capturedAt] = {sessionId, std::string(rawValue(source))};
  if (const auto channel = session.channels.find(source); channel != session.channels.end())
    channels_[channel->second].chunks.push_back(id);
  backend_.appendAudio(sessionId, source, 0, capturedAt, encodePCM(std::vector<std::int16_t>{id, 0, 0, 0}));
}

void BackendStorm::stopAll() {
  for (auto& [id, session] : sessions_) {
    for (const auto source : allAudioSources) close(session, source, End::cancelled);
    session = {};
  }
  backend_.stopAll();
}

void BackendStorm::expectAnalyzers(const std::vector<RecordedAnalysis>& analyses) const {
  std::vector<Channel> actual;
  for (const auto& analysis : analyses) {
    ASSERT_EQ(analysis.contextualStrings.size(), 1u);
    EXPECT_EQ(analysis.droppedBuffers, 0u);
    EXPECT_FALSE(analysis.finalizedAt && analysis.cancelledAt) << "the analyzer ended twice";
    Channel channel{analysis.contextualStrings[0], {}, End::none};
    for (const auto& buffer : analysis.buffers) channel.chunks.push_back(buffer.firstSample);
    if (analysis.finalizedAt) channel.end = End::finished;
    if (analysis.cancelledAt) channel.end = End::cancelled;
    actual.push_back(std::move(channel));
  }
  // Analyzers are created in any order.
  auto expected = channels_;
  std::sort(expected.begin(), expected.end());
  std::sort(actual.begin(), actual.end());
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) {
    EXPECT_EQ(actual[i].start, expected[i].start);
    EXPECT_EQ(actual[i].chunks, expected[i].chunks) << "of a channel of " << expected[i].start;
    EXPECT_EQ(actual[i].end, expected[i].end) << "of a channel of " << expected[i].start;
  }
}

// A transcript names the session and the source of the audio that set its time base.
void BackendStorm::expectTranscript(const json& event) const {
  const auto capture = captures_.find(event.at("startedAt").get<double>());
  ASSERT_NE(capture, captures_.end()) << event;
  EXPECT_EQ(event.at("sessionId"), capture->second.first) << event;
  EXPECT_EQ(event.at("source"), capture->second.second) << event;
  const auto prefix = capture->second.first + "-" + capture->second.second + "-";
  EXPECT_TRUE(event.at("utteranceId").get<std::string>().starts_with(prefix)) << event;
}

void BackendStorm::expectEvents(const std::vector<json>& events) const {
  std::vector<std::tuple<std::string, std::string, std::string>> answers;
  std::map<std::string, int> finals;  // by utterance
  std::size_t readies = 0;
  for (const auto& event : events) {
    const auto type = event.at("type").get<std::string>();
    if (type == "session.stopped" || type == "source.suppressed") {
      answers.emplace_back(type, event.at("sessionId"), event.value("source", ""));
    } else if (type == "session.ready") {
      ++readies;
    } else if (type == "transcript.partial") {
      expectTranscript(event);
      EXPECT_EQ(finals.count(event.at("utteranceId")), 0u) << "a partial after its final: " << event;
    } else if (type == "transcript.final") {
      expectTranscript(event);
      EXPECT_EQ(++finals[event.at("utteranceId")], 1) << event;
    } else {
      ADD_FAILURE() << event;
    }
  }
  EXPECT_EQ(answers, answers_) << "answers have the order of the operations";
  EXPECT_EQ(readies, readies_) << "each channel reports ready once";
}

}  // namespace palaver
