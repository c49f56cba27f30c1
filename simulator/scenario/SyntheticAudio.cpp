#include "simulator/scenario/SyntheticAudio.h"

#include <cmath>

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

}  // namespace palaver
