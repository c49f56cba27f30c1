// Collects from a recording what happened in a meeting, and writes it as a page and as subtitles.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/Captions.h"
#include "cli/Recording.h"

namespace palaver::cli {

// Times are ms since the Unix epoch, as in the events.
struct Meeting {
  struct Chunk {
    double capturedAt = 0;
    double milliseconds = 0;
    double loudness = 0;  // root mean square, full scale 1
  };
  struct Final {
    double startedAt = 0;
    std::optional<double> speechEndedAt;
    std::optional<double> latency;  // ms from the end of the speech to the final
    std::optional<double> wait;     // ms of it for which the helper waited for the end of the pause
    std::string reason;             // of the end; empty: not told
    std::string text;
    std::optional<std::size_t> characters;  // instead of the text, in a redacted recording
  };
  struct Gap {
    double from = 0;
    double milliseconds = 0;  // negative: the host's clock went back
  };
  struct Source {
    std::vector<Chunk> chunks;
    std::vector<Final> finals;
    std::vector<Gap> gaps;  // in the capture times
  };
  struct Error {
    std::string text;  // of the first one
    std::size_t count = 0;
  };

  double startedAt = 0;
  double endedAt = 0;
  std::string implementation;
  std::map<std::string, Source> sources;  // by name
  std::map<std::string, Error> errors;    // by code
  std::optional<double>
      clockOffset;                 // ms that the helper's clock is ahead of the host's, from the first ping
  std::optional<std::string> end;  // how the helper ended
  bool isRedacted = false;
};

Meeting meetingOf(const RecordedConversation& conversation);

// The value below which `share` (0 to 1) of the values lie. None without values.
std::optional<double> percentile(std::vector<double> values, double share);

// One self-contained page: no scripts, nothing from a network.
std::string htmlPage(const Meeting& meeting, const std::string& title);

// Returns the finals of all sources in order of time, counted from the start of the recording.
std::vector<Caption> captionsOf(const Meeting& meeting);

}  // namespace palaver::cli
