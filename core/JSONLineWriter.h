// Writes events to stdout, each a JSON object on its own line.
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

// Holds string keys, and strings, numbers, booleans, arrays or nested objects as values. Keys
// are kept sorted.
using Event = nlohmann::json;

// Serializes the event as one line of JSON without its line feed. Keys are sorted, there is no white space,
// slashes are not escaped, and numbers take the shortest text that reads back to the same value. Throws
// std::exception when a text is not UTF-8 or a number is not finite.
std::string serializeEvent(const Event& event);

// Any thread. Lives as long as the process.
class JSONLineWriter {
 public:
  JSONLineWriter(const Clock& clock, OutputStream& standardOutput, OutputStream& standardError)
      : clock_(clock), standardOutput_(standardOutput), standardError_(standardError) {}

  // Writes one event as one whole line. An event that cannot be serialized is dropped and reported on stderr.
  void write(const Event& event);

  // Writes a "helper.error" event.
  void error(std::string_view message, std::optional<std::string_view> sessionId = std::nullopt,
             std::optional<AudioSource> source = std::nullopt);

  // Writes a "helper.error" event if it need not wait, neither for another thread's line nor for the reader
  // of stdout. Returns whether it was written.
  bool tryError(std::string_view message);

  // From now on drops lines once the host has accepted nothing for 2 s. Called when the process is to end, so
  // that a host that does not read cannot prevent it.
  void limitStalls();

  // Blocks until the current line is written, and delays further lines while the result exists. This lets the
  // process end between two lines.
  [[nodiscard]] std::unique_lock<std::mutex> holdLines() { return std::unique_lock(lock_); }

 private:
  Event errorEvent(std::string_view message) const;
  void writeLine(std::string_view line);

  const Clock& clock_;
  OutputStream& standardOutput_;
  OutputStream& standardError_;
  std::mutex lock_;  // held for both writes of one line, so that lines never mix
};

// Returns the status's name on the wire.
std::string_view authorizationLabel(AuthorizationStatus status);

}  // namespace palaver
