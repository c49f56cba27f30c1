// Creates audio of a given loudness.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace palaver {

// Returns samples with the lowest root mean square (full scale 1) that is not below `rms`. 0 means silence.
// At most 0.99.
std::vector<std::int16_t> samplesOfLoudness(double rms, std::size_t frames);

}  // namespace palaver
