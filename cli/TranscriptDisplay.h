// Shows a session to a person: with live lines on a terminal, as plain lines elsewhere.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/HostObserver.h"

namespace palaver::cli {

// Rewrites the latest partial of each source and the progress at the bottom of a terminal: the live lines.
// Finals, errors and the status scroll above, or go elsewhere: the lines and the live lines have outputs of
// their own.
class TranscriptDisplay final : public HostObserver {
 public:
  struct Style {
    bool colours = false;  // of the lines
    bool partials = true;  // each new partial is a line too
    bool latency = true;   // show the helper's latency, valid for audio in real time
    bool diagnostics = true;
  };
  using Output = std::function<void(std::string_view bytes)>;
  using Width = std::function<std::size_t()>;  // current width, columns

  // `lines` gets the lines and is as wide as `width`. `live` gets the live lines with cursor movements, and
  // is as wide as `liveWidth`; empty for none.
  TranscriptDisplay(Style style, Output lines, Width width, Output live = {}, Width liveWidth = {});

  void onEvent(std::string_view line, const nlohmann::json& event) override;
  void onDiagnostic(std::string_view line) override;
  void onProblem(std::string_view message) override;
  void onStreamStart(double startedAt) override;
  void onProgress(double position, double total) override;

  // Prints a summary and whether the session succeeded. Call when the session has ended.
  void finish(bool ok);

 private:
  struct Source {
    std::string partial;  // shown live; empty when no utterance is open
    std::size_t finals = 0;
    std::size_t words = 0;
    double latencySum = 0;  // ms
  };

  void showStatus(const nlohmann::json& event);
  void showReady(const nlohmann::json& event);
  void showTranscript(const nlohmann::json& event, bool isFinal);
  void showError(std::string_view message);

  std::string relative(const nlohmann::json& event, const char* key) const;  // relative to the stream's start
  std::string styled(std::string_view text, std::string_view code) const;
  void print(const std::vector<std::string>& lines);  // above the live lines
  void printWrapped(std::string_view label, std::string_view text, std::string_view code);
  void draw();
  std::string eraseLive();
  std::string liveLines();
  static std::size_t bounded(std::size_t columns);

  Style style_;
  Output lines_;
  Width width_;
  Output live_;
  Width liveWidth_;
  std::array<Source, 2> sources_;  // by AudioSource
  double startedAt_ = 0;           // ms since the Unix epoch
  double position_ = 0;            // ms of audio
  double total_ = 0;               // ms of audio; 0 while unknown
  bool streaming_ = false;
  std::size_t liveCount_ = 0;  // live lines on the screen
  std::size_t problems_ = 0;
};

}  // namespace palaver::cli
