// Converts samples to the form that the engine's library takes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace palaver {

// Returns the samples with full scale 1, followed by `silence` samples of silence.
inline std::vector<float> floatSamples(std::span<const std::int16_t> samples, std::size_t silence = 0) {
  std::vector<float> audio(samples.size() + silence);
  std::ranges::transform(samples, audio.begin(),
                         [](std::int16_t sample) { return static_cast<float>(sample) / 32768; });
  return audio;
}

}  // namespace palaver
