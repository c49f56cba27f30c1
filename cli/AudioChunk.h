// Defines the size of one audio command.
#pragma once

#include <cstddef>

namespace palaver::cli {

inline constexpr std::size_t chunkFrames = 1600;  // 16 kHz frames, 100 ms
inline constexpr double chunkMilliseconds = 100;

}  // namespace palaver::cli
