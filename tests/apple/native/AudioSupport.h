// Makes audio for tests of the AVFAudio adapters.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/AudioBuffer.h"
#include "platform/AudioConverter.h"

namespace palaver {

inline AudioFormat mono(CommonFormat commonFormat, double sampleRate, bool interleaved = false) {
  return {commonFormat, sampleRate, 1, interleaved};
}

// Creates a rising ramp.
inline std::shared_ptr<PCMBuffer> ramp(const AudioFormat& format, std::uint32_t frames, int from = 0) {
  auto buffer = std::make_shared<PCMBuffer>(format, frames);
  buffer->setFrameLength(frames);
  for (std::uint32_t channel = 0; channel < (format.interleaved ? 1 : format.channelCount); ++channel)
    for (std::uint32_t i = 0; i < frames * (format.interleaved ? format.channelCount : 1); ++i) {
      const auto value =
          static_cast<std::int16_t>(from + static_cast<int>(i) + 1000 * static_cast<int>(channel));
      if (auto* const whole = buffer->int16ChannelData(channel)) whole[i] = value;
      if (auto* const real = buffer->floatChannelData(channel)) real[i] = static_cast<float>(value) / 32768;
    }
  return buffer;
}

// Converts a stream in chunks of 100 frames. Holds the statuses and the frames of each chunk.
struct Converted {
  std::vector<ConverterOutputStatus> statuses;
  std::vector<std::int16_t> samples;
};

inline Converted convertChunks(AudioConverter& converter,
                               const std::vector<std::shared_ptr<PCMBuffer>>& chunks) {
  Converted converted;
  for (const auto& chunk : chunks) {
    PCMBuffer output(converter.outputFormat(), 1000);
    std::optional<PlatformError> error;
    bool given = false;
    converted.statuses.push_back(converter.convert(output, error, [&](ConverterInputStatus& status) {
      status = given ? ConverterInputStatus::noDataNow : ConverterInputStatus::haveData;
      return std::exchange(given, true) ? nullptr : chunk;
    }));
    EXPECT_FALSE(error);
    for (std::uint32_t i = 0; i < output.frameLength(); ++i)
      converted.samples.push_back(output.int16ChannelData()[i]);
  }
  return converted;
}

}  // namespace palaver
