// Compares every Base64 decoder of this processor with a bit-shifting implementation.
#include <optional>
#include <string>
#include <vector>

#include "core/Base64.h"
#include "fuzz/FuzzInput.h"

namespace {

int valueOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

std::optional<std::vector<std::uint8_t>> decodeSlowly(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  for (int padding = 0; padding < 2 && text.ends_with('='); ++padding) text.remove_suffix(1);
  std::vector<std::uint8_t> bytes;
  unsigned bits = 0;
  int count = 0;
  for (const char c : text) {
    const int value = valueOf(c);
    if (value < 0) return std::nullopt;
    bits = (bits << 6 | static_cast<unsigned>(value)) & 0xFFFF;
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes.push_back(static_cast<std::uint8_t>(bits >> count));
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace palaver;
  const auto input = text(data, size);
  const auto expected = decodeSlowly(input);
  for (const VectorKernels* const kernels : supportedVectorKernels()) {
    std::vector<std::uint8_t> bytes(base64BufferSize(size));
    const auto decoded = decodeBase64(input, bytes.data(), *kernels);
    require(decoded.has_value() == expected.has_value(), "accepted by one side only");
    if (!decoded) continue;
    bytes.resize(*decoded);
    require(bytes == *expected, "different bytes");
  }
  return 0;
}
