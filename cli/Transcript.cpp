#include "cli/Transcript.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/EventText.h"

namespace palaver::cli {

namespace {

using nlohmann::ordered_json;

}  // namespace

void Transcript::onEvent(std::string_view /*line*/, const nlohmann::json& event) {
  if (textOf(event, "type") != "transcript.final") return;
  const double start = numberOf(event, "startedAt").value_or(startedAt_);
  const double end = numberOf(event, "speechEndedAt").value_or(start);
  captions_.push_back({start - startedAt_, end - startedAt_, textOf(event, "source"), textOf(event, "text")});
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
