// From the helper's buffers to the analyzer's format, without seams between chunks.
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "platform/AudioConverter.h"

namespace palaver {

// One per channel, used on the channel's executor only.
class BufferConverter {
 public:
  // The ways in which a conversion fails, numbered as their codes; what() is the platform's generic text for
  // an error value.
  class ConversionError : public std::exception {
   public:
    enum class Case { conversionFailed = 0, failedToCreateConverter = 1, failedToCreateBuffer = 2 };

    explicit ConversionError(Case which, std::optional<PlatformError> underlying = std::nullopt);

    Case which() const { return which_; }
    // The converter's own error, with conversionFailed only, and only if it gave one.
    const std::optional<PlatformError>& underlying() const { return underlying_; }
    const char* what() const noexcept override { return text_.c_str(); }

   private:
    Case which_;
    std::optional<PlatformError> underlying_;
    std::string text_;
  };

  BufferConverter(AudioBuffers& audioBuffers, AudioConverters& audioConverters)
      : audioBuffers_(audioBuffers), audioConverters_(audioConverters) {}

  // The audio of the buffer in the given format: the buffer itself when it has that format already. Frames
  // that a resampler still holds back come with the next call. Throws ConversionError; the converter survives
  // a failed call.
  std::shared_ptr<const PCMBuffer> convert(const std::shared_ptr<const PCMBuffer>& buffer,
                                           const AudioFormat& format);

 private:
  AudioBuffers& audioBuffers_;
  AudioConverters& audioConverters_;
  std::unique_ptr<AudioConverter> converter_;  // made by the first call that needs one
};

}  // namespace palaver
