// The one writer of events: each a JSON object on a line of its own on standard output.
#pragma once

#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "core/AudioSource.h"
#include "platform/Clock.h"
#include "platform/SpeechRecognition.h"
#include "platform/StandardStreams.h"

namespace palaver {

// An event: string keys, and strings, numbers, booleans, arrays or nested objects as values. Keys are kept
// sorted.
using Event = nlohmann::json;

// The event as one line of JSON without its line feed: keys sorted, no white space, slashes as they are,
// numbers as the shortest text that reads back to the same value. Throws std::exception when a text is not
// UTF-8 or a number is not finite.
std::string serializeEvent(const Event& event);

// Safe from any thread. Lives as long as the process.
class JSONLineWriter {
 public:
  JSONLineWriter(const Clock& clock, OutputStream& standardOutput, OutputStream& standardError)
      : clock_(clock), standardOutput_(standardOutput), standardError_(standardError) {}

  // Writes one event as one whole line. An event that cannot be serialised is dropped, with a line on
  // standard error.
  void write(const Event& event);

  // Writes a "helper.error" event.
  void error(std::string_view message, std::optional<std::string_view> sessionId = std::nullopt,
             std::optional<AudioSource> source = std::nullopt);

  // Waits for the line being written, if any, and keeps others from being begun while the result lives: so
  // that the process can end between two lines.
  [[nodiscard]] std::unique_lock<std::mutex> holdLines() { return std::unique_lock(lock_); }

 private:
  const Clock& clock_;
  OutputStream& standardOutput_;
  OutputStream& standardError_;
  std::mutex lock_;  // held for the two writes of one line, so that lines never mix
};

// The authorization status as the wire names it.
std::string_view authorizationLabel(AuthorizationStatus status);

}  // namespace palaver
