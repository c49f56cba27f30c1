// Makes audio for the models in tests/models, which recognize tones as words (tests/models/tone_graphs.py).
#pragma once

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <numbers>
#include <vector>

namespace palaver {

// The folder of the model. PALAVER_SOURCE_DIR is set by the build.
inline const std::filesystem::path tonesModel =
    std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models/tones";

struct Tone {
  double hertz = 0;  // 0 is silence
  int milliseconds = 0;
  double loudness = 0.3;  // of full scale
};

// Frequencies in the middle of the model's bands.
inline constexpr double lowTone = 300;      // 低
inline constexpr double middleTone = 1000;  // 中
inline constexpr double highTone = 2000;    // 高
inline constexpr double skyTone = 5000;     // 空, or 花 as a hotword

// Returns the tones one after the other as 16 kHz mono samples.
inline std::vector<std::int16_t> makeTones(std::initializer_list<Tone> tones) {
  std::vector<std::int16_t> samples;
  for (const auto& tone : tones)
    for (int i = 0; i < tone.milliseconds * 16; ++i)
      samples.push_back(static_cast<std::int16_t>(
          std::lround(32767 * tone.loudness * std::sin(2 * std::numbers::pi * tone.hertz * i / 16000))));
  return samples;
}

}  // namespace palaver
