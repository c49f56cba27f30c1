// Conversion of a stream of audio from one format to another. Shaped as AVAudioConverter.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

// Numbered as AVAudioConverterInputStatus is.
enum class ConverterInputStatus { haveData = 0, noDataNow = 1, endOfStream = 2 };

// Numbered as AVAudioConverterOutputStatus is. inputRanDry is the usual end of a call that was given one
// buffer.
enum class ConverterOutputStatus { haveData = 0, inputRanDry = 1, endOfStream = 2, error = 3 };

// Numbered as AVAudioConverterPrimeMethod is. none: no frames are put before the first; the first output
// sample is the first input sample.
enum class ConverterPrimeMethod { pre = 0, normal = 1, none = 2 };

// Keeps its state from call to call, so that a stream converted in pieces has no seams. Used by one thread at
// a time.
class AudioConverter {
 public:
  // Asked for input until it has none: sets the status, and returns a buffer of the input format with
  // haveData, else null. The buffer stays unchanged until the next call or the end of convert(). Called
  // inside convert() only.
  using InputBlock = std::function<std::shared_ptr<const PCMBuffer>(ConverterInputStatus&)>;

  virtual ~AudioConverter() = default;

  virtual const AudioFormat& inputFormat() const = 0;
  virtual const AudioFormat& outputFormat() const = 0;
  virtual void setPrimeMethod(ConverterPrimeMethod method) = 0;

  // Converts what the block gives into `output` (of the output format), up to its capacity, and sets its
  // frame length. Input that does not fit is kept for the next call. With the status error, `error` may be
  // set.
  virtual ConverterOutputStatus convert(PCMBuffer& output, std::optional<PlatformError>& error,
                                        const InputBlock& input) = 0;

 protected:
  AudioConverter() = default;
  AudioConverter(const AudioConverter&) = default;
  AudioConverter& operator=(const AudioConverter&) = default;
};

// Makes converters. Any thread.
class AudioConverters {
 public:
  virtual ~AudioConverters() = default;

  // Null when the pair of formats cannot be converted.
  virtual std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) = 0;

 protected:
  AudioConverters() = default;
  AudioConverters(const AudioConverters&) = default;
  AudioConverters& operator=(const AudioConverters&) = default;
};

}  // namespace palaver
