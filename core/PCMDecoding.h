// Decodes the text of an "audio" command into a sample buffer.
#pragma once

#include <exception>
#include <memory>
#include <string_view>

#include "platform/AudioBuffer.h"

namespace palaver {

// Sample rate of all audio on the wire, Hz.
inline constexpr double helperSampleRate = 16000.0;

// Reports why decoding failed. what() is the text for the host.
class PCMError : public std::exception {
 public:
  enum class Case { invalidBase64, oddByteCount, formatUnavailable, bufferUnavailable };

  explicit PCMError(Case which) : which_(which) {}

  const char* what() const noexcept override;

  friend bool operator==(const PCMError& a, const PCMError& b) { return a.which_ == b.which_; }

 private:
  Case which_;
};

// Returns the format of all audio on the wire: 16 kHz, mono, signed 16-bit. Returns none when the platform
// has no such format.
std::optional<AudioFormat> helperAudioFormat(AudioBuffers& audioBuffers);

// Decodes strict Base64 of little-endian 16-bit samples into a new buffer in the helper's format. Its frame
// capacity and frame length are the number of samples. Throws PCMError. Any thread.
std::shared_ptr<PCMBuffer> makePCMBuffer(AudioBuffers& audioBuffers, std::string_view base64);

}  // namespace palaver
