// Receives the events and progress of a host session.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

#include "core/AudioSource.h"

namespace palaver::cli {

// Calls arrive on the thread of HostSession::run(), one at a time. They must not block for long, because the
// helper's output is not read meanwhile.
class HostObserver {
 public:
  virtual ~HostObserver() = default;

  // Reports an event of the helper: the line without its line feed, and the decoded JSON.
  virtual void onEvent(std::string_view line, const nlohmann::json& event) = 0;

  // Reports a line of the helper's stderr.
  virtual void onDiagnostic(std::string_view line) = 0;

  // Reports a problem in words for the user. The session will fail.
  virtual void onProblem(std::string_view message) = 0;

  // Reports that streaming starts. `startedAt` is the capture time of the first sample (ms since the Unix
  // epoch).
  virtual void onStreamStart(double startedAt) = 0;

  // Reports progress in ms of audio. `total` may be an estimate. After the end of the audio, `position`
  // exceeds `total` while the last finals are awaited.
  virtual void onProgress(double position, double total) = 0;

 protected:
  HostObserver() = default;
  HostObserver(const HostObserver&) = default;
  HostObserver& operator=(const HostObserver&) = default;
};

}  // namespace palaver::cli
