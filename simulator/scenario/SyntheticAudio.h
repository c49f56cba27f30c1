// Made-up audio for tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace palaver {

// Samples whose root mean square (full scale 1) is the smallest possible that is not below `rms`; 0 for
// silence. At most 0.99.
std::vector<std::int16_t> samplesOfLoudness(double rms, std::size_t frames);

// The samples as the "pcmBase64" of an audio command: little-endian, in standard Base64.
std::string pcmBase64(const std::vector<std::int16_t>& samples);

}  // namespace palaver
