// Declares what the command channel requires of a speech engine.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "core/AudioSource.h"

namespace palaver {

// Main thread only. One instance serves the process. Operations are called one at a time, in the order in
// which the host's commands arrived: emitStatus() first, stopAll() last. No operation throws or returns a
// result. Every outcome is an event. Texts need to be valid only during the call.
class SpeechBackend {
 public:
  virtual ~SpeechBackend() = default;

  // Returns the engine's name on the wire.
  virtual std::string_view implementationName() const = 0;

  // Reports the engine's readiness as a "helper.status" event.
  virtual void emitStatus() = 0;

  // Opens a session. Replaces a session of the same id.
  virtual void startSession(std::string_view id, std::string_view locale,
                            std::span<const std::string_view> vocabulary) = 0;

  // Feeds one chunk. `capturedAt`: capture time of its first sample, ms since the Unix epoch. `pcmBase64`:
  // Base64 of 16 kHz mono little-endian 16-bit samples. The session need not exist.
  virtual void appendAudio(std::string_view sessionId, AudioSource source, std::int64_t sequence,
                           double capturedAt, std::string_view pcmBase64) = 0;

  // Mutes a source, which drops its unfinalized audio, or unmutes it.
  virtual void setSuppressed(std::string_view sessionId, AudioSource source, bool suppressed) = 0;

  virtual void stopSession(std::string_view id) = 0;

  // Ends every session. The process exits right after.
  virtual void stopAll() = 0;

 protected:
  SpeechBackend() = default;
  SpeechBackend(const SpeechBackend&) = default;
  SpeechBackend& operator=(const SpeechBackend&) = default;
};

}  // namespace palaver
