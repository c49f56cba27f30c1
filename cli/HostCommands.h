// Encodes a host's commands as lines, each with its line feed.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/AudioSource.h"

namespace palaver::cli {

// Any thread. Throws nlohmann::json::exception when a text is not UTF-8.
std::string sessionStart(std::string_view sessionId, std::string_view locale,
                         const std::vector<std::string>& vocabulary);
std::string sessionStop(std::string_view sessionId);

// `capturedAt` is the time of the first frame, ms since the Unix epoch. Frames are 16 kHz mono.
std::string audio(std::string_view sessionId, AudioSource source, std::int64_t sequence, double capturedAt,
                  std::span<const std::int16_t> frames);

}  // namespace palaver::cli
