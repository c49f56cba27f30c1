#include "cli/PCM.h"

#include <cmath>

#include "core/Base64.h"

namespace palaver::cli {

std::optional<std::vector<std::uint8_t>> decodedBase64(std::string_view text) {
  std::vector<std::uint8_t> bytes(base64BufferSize(text.size()));
  const auto size = decodeBase64(text, bytes.data());
  if (!size) return std::nullopt;
  bytes.resize(*size);
  return bytes;
}

std::optional<std::vector<std::int16_t>> decodedPCM(std::string_view text) {
  const auto bytes = decodedBase64(text);
  if (!bytes) return std::nullopt;
  std::vector<std::int16_t> samples(bytes->size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i)
    samples[i] = static_cast<std::int16_t>((*bytes)[2 * i] | (*bytes)[2 * i + 1] << 8);
  return samples;
}

double loudnessOf(std::span<const std::int16_t> samples) {
  if (samples.empty()) return 0;
  double sum = 0;
  for (const double sample : samples) sum += sample * sample;
  return std::sqrt(sum / static_cast<double>(samples.size())) / 32768;
}

}  // namespace palaver::cli
