// Generates audio for tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace palaver {

// Returns samples with the smallest root mean square (full scale 1) that is not below `rms`. 0 is silence,
// 0.99 the maximum.
std::vector<std::int16_t> samplesOfLoudness(double rms, std::size_t frames);

// Encodes samples as the "pcmBase64" of an audio command: little-endian, in standard Base64.
std::string pcmBase64(const std::vector<std::int16_t>& samples);

}  // namespace palaver
