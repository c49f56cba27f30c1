// Converts the helper's buffers to the analyzer's format, without gaps between chunks.
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "platform/AudioConverter.h"

namespace palaver {

// One per channel. Used on the channel's executor only.
class BufferConverter {
 public:
  // Reports why a conversion failed. The cases' numbers are the error codes. what() is the platform's generic
  // text for an error value.
  class ConversionError : public std::exception {
   public:
    enum class Case { conversionFailed = 0, failedToCreateConverter = 1, failedToCreateBuffer = 2 };

    explicit ConversionError(Case which, std::optional<PlatformError> underlying = std::nullopt);

    Case which() const { return which_; }
    // The converter's own error. Present only with conversionFailed, and only if the converter gave one.
    const std::optional<PlatformError>& underlying() const { return underlying_; }
    const char* what() const noexcept override { return text_.c_str(); }

   private:
    Case which_;
    std::optional<PlatformError> underlying_;
    std::string text_;
  };

  BufferConverter(AudioBuffers& audioBuffers, AudioConverters& audioConverters)
      : audioBuffers_(audioBuffers), audioConverters_(audioConverters) {}

  // Converts the buffer to the given format. Returns the buffer itself if it already has that format. Frames
  // that the resampler still holds are returned by the next call. Throws ConversionError. The converter stays
  // usable after a failed call.
  std::shared_ptr<const PCMBuffer> convert(const std::shared_ptr<const PCMBuffer>& buffer,
                                           const AudioFormat& format);

 private:
  AudioBuffers& audioBuffers_;
  AudioConverters& audioConverters_;
  std::unique_ptr<AudioConverter> converter_;  // created by the first call that needs one
};

}  // namespace palaver
