// What a host session tells whoever shows or collects it.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

#include "core/AudioSource.h"

namespace palaver::host {

// All calls come on the thread of HostSession::run(), one at a time, and must not block for long: the
// helper's output waits meanwhile.
class HostObserver {
 public:
  virtual ~HostObserver() = default;

  // An event of the helper: as it was written, without its line feed, and decoded.
  virtual void onEvent(std::string_view line, const nlohmann::json& event) = 0;

  // A line that the helper wrote to its standard error.
  virtual void onDiagnostic(std::string_view line) = 0;

  // Something that went wrong, in words for the user. The session will not end well.
  virtual void onProblem(std::string_view message) = 0;

  // Audio starts to flow; `startedAt` is the capture time of the first sample (ms since the Unix epoch).
  virtual void onStreamStart(double startedAt) = 0;

  // How much has been streamed of how much there is, in ms of audio; `total` may be an estimate. After the
  // end, `position` goes beyond `total` while the last words are awaited.
  virtual void onProgress(double position, double total) = 0;

 protected:
  HostObserver() = default;
  HostObserver(const HostObserver&) = default;
  HostObserver& operator=(const HostObserver&) = default;
};

}  // namespace palaver::host
