// Shows a session to a person: on a terminal with live lines at the bottom, elsewhere as plain lines.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/HostObserver.h"

namespace palaver::host {

// The newest partial of each source, and how far the stream is, are rewritten in place at the bottom of a
// terminal; finals, errors and the status scroll above them. Without a terminal each new partial is a line.
class TranscriptDisplay final : public HostObserver {
 public:
  struct Style {
    bool terminal = false;  // cursor movements and colours
    bool latency = true;    // the helper's latency makes sense: the audio comes in real time
    bool diagnostics = true;
  };
  using Output = std::function<void(std::string_view bytes)>;  // called for everything shown
  using Width = std::function<std::size_t()>;                  // the terminal's columns now

  TranscriptDisplay(Style style, Output output, Width width);

  void onEvent(std::string_view line, const nlohmann::json& event) override;
  void onDiagnostic(std::string_view line) override;
  void onProblem(std::string_view message) override;
  void onStreamStart(double startedAt) override;
  void onProgress(double position, double total) override;

  // The last lines, when the session has ended: what came in all and whether all went right.
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

  std::string relative(const nlohmann::json& event, const char* key) const;  // to the stream's start
  std::string styled(std::string_view text, std::string_view code) const;
  void print(const std::vector<std::string>& lines);  // above the live lines
  void printWrapped(std::string_view label, std::string_view text, std::string_view code);
  void draw();
  std::string eraseLive();
  std::string liveLines();
  std::size_t width() const;

  Style style_;
  Output output_;
  Width width_;
  std::array<Source, 2> sources_;  // by AudioSource
  double startedAt_ = 0;           // ms since the Unix epoch
  double position_ = 0;            // ms of audio
  double total_ = 0;               // ms of audio
  bool streaming_ = false;
  std::size_t liveCount_ = 0;  // live lines on the screen
  std::size_t problems_ = 0;
};

}  // namespace palaver::host
