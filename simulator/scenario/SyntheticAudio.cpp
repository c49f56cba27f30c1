#include "simulator/scenario/SyntheticAudio.h"

#include <cmath>
#include <string_view>

namespace palaver {

// Mixes two neighbouring amplitudes. A single one would miss most loudnesses by half a step.
std::vector<std::int16_t> samplesOfLoudness(double rms, std::size_t frames) {
  const double wanted = rms * 32768;
  const double quiet = std::floor(wanted);
  const double loud = quiet + 1;
  const auto count = static_cast<double>(frames);
  const double loudCount =
      std::ceil(count * (wanted * wanted - quiet * quiet) / (loud * loud - quiet * quiet) - 1e-9);
  std::vector<std::int16_t> samples;
  samples.reserve(frames);
  for (std::size_t i = 0; i < frames; ++i)
    samples.push_back(static_cast<std::int16_t>(static_cast<double>(i) < loudCount ? loud : quiet));
  return samples;
}

std::string pcmBase64(const std::vector<std::int16_t>& samples) {
  std::vector<std::uint8_t> bytes;
  for (const std::int16_t sample : samples) {
    const auto bits = static_cast<std::uint16_t>(sample);
    bytes.push_back(static_cast<std::uint8_t>(bits & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(bits >> 8));
  }
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j) group = group << 8 | (i + j < bytes.size() ? bytes[i + j] : 0u);
    for (std::size_t j = 0; j < 4; ++j)
      text += i + j <= bytes.size() ? alphabet[group >> (18 - 6 * j) & 0x3F] : '=';
  }
  return text;
}

}  // namespace palaver
