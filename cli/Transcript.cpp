#include "cli/Transcript.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace palaver::cli {

namespace {

using nlohmann::ordered_json;

std::string textOf(const nlohmann::json& event, const char* key) {
  const auto member = event.find(key);
  return member != event.end() && member->is_string() ? member->get<std::string>() : "";
}

}  // namespace

void Transcript::onEvent(std::string_view /*line*/, const nlohmann::json& event) {
  if (textOf(event, "type") != "transcript.final") return;
  const auto time = [&](const char* key, double otherwise) {
    const auto member = event.find(key);
    return member != event.end() && member->is_number() ? member->get<double>() - startedAt_ : otherwise;
  };
  const double start = time("startedAt", 0);
  captions_.push_back({start, time("speechEndedAt", start), textOf(event, "source"), textOf(event, "text")});
}

std::string Transcript::written(TranscriptFormat format) const {
  if (format == TranscriptFormat::srt) return srtOf(captions_);
  if (format == TranscriptFormat::vtt) return vttOf(captions_);
  auto ordered = captions_;
  std::ranges::stable_sort(ordered, {}, &Caption::start);
  auto utterances = ordered_json::array();
  for (const auto& caption : ordered)
    utterances.push_back({{"source", caption.speaker},
                          {"startMs", caption.start},
                          {"endMs", caption.end},
                          {"text", caption.text}});
  const ordered_json transcript{
      {"locale", locale_}, {"startedAt", startedAt_}, {"utterances", std::move(utterances)}};
  return transcript.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace palaver::cli
