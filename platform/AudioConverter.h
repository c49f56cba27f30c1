// Converts an audio stream from one format to another. Modelled on AVAudioConverter.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

// Numbered as in AVAudioConverterInputStatus.
enum class ConverterInputStatus { haveData = 0, noDataNow = 1, endOfStream = 2 };

// Numbered as in AVAudioConverterOutputStatus. inputRanDry is the usual end of a call that got one buffer.
enum class ConverterOutputStatus { haveData = 0, inputRanDry = 1, endOfStream = 2, error = 3 };

// Numbered as in AVAudioConverterPrimeMethod. none: no frames are inserted before the first, so the first
// output sample is the first input sample.
enum class ConverterPrimeMethod { pre = 0, normal = 1, none = 2 };

// Converts a stream piece by piece without seams, by keeping its state between calls. Used by one thread
// at a time.
class AudioConverter {
 public:
  // Supplies input. Sets the status, and returns a buffer of the input format with haveData, otherwise null.
  // The buffer must stay unchanged until the next call or the end of convert(). Called only inside convert(),
  // until it has no data.
  using InputBlock = std::function<std::shared_ptr<const PCMBuffer>(ConverterInputStatus&)>;

  virtual ~AudioConverter() = default;

  virtual const AudioFormat& inputFormat() const = 0;
  virtual const AudioFormat& outputFormat() const = 0;
  virtual void setPrimeMethod(ConverterPrimeMethod method) = 0;

  // Converts the block's input into `output` (of the output format), up to its capacity, and sets its
  // frame length. Keeps input that does not fit for the next call. `error` may be set when the returned
  // status is error.
  virtual ConverterOutputStatus convert(PCMBuffer& output, std::optional<PlatformError>& error,
                                        const InputBlock& input) = 0;

 protected:
  AudioConverter() = default;
  AudioConverter(const AudioConverter&) = default;
  AudioConverter& operator=(const AudioConverter&) = default;
};

// Creates converters. Any thread.
class AudioConverters {
 public:
  virtual ~AudioConverters() = default;

  // Returns null when the pair of formats cannot be converted.
  virtual std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) = 0;

 protected:
  AudioConverters() = default;
  AudioConverters(const AudioConverters&) = default;
  AudioConverters& operator=(const AudioConverters&) = default;
};

}  // namespace palaver
