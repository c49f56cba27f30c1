// Encodes the audio of commands, for tools and tests. The helper itself only decodes.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace palaver {

// Returns standard Base64 with padding (RFC 4648, section 4).
std::string encodeBase64(std::span<const std::uint8_t> bytes);

// Returns the "pcmBase64" of an audio command: the samples in little-endian order.
std::string encodePCM(std::span<const std::int16_t> samples);

}  // namespace palaver
