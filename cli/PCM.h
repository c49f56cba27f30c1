// Decodes and measures the audio of commands.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace palaver::cli {

// Root mean square from which the helper counts a buffer as voice; full scale is 1. A test compares it with
// the helper's own constant.
inline constexpr double voiceThreshold = 0.008;

// Returns the bytes of a Base64 text, or none when it is invalid. Any thread.
std::optional<std::vector<std::uint8_t>> decodedBase64(std::string_view text);

// Returns the samples of a "pcmBase64", or none when it is not Base64. Ignores half a sample at the end. Any
// thread.
std::optional<std::vector<std::int16_t>> decodedPCM(std::string_view text);

// Returns the root mean square of the samples; full scale is 1. Returns 0 without samples. Any thread.
double loudnessOf(std::span<const std::int16_t> samples);

}  // namespace palaver::cli
