#include "core/Base64.h"

#include <array>
#include <bit>
#include <cstring>

namespace palaver {

namespace {

constexpr std::uint8_t invalid = 0xFF;

constexpr std::array<std::uint8_t, 256> makeTable() {
  std::array<std::uint8_t, 256> table{};
  table.fill(invalid);
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t value = 0; value < alphabet.size(); ++value)
    table[static_cast<unsigned char>(alphabet[value])] = static_cast<std::uint8_t>(value);
  return table;
}

constexpr auto table = makeTable();

// The value of one character, or `invalid`. Branch-free on bytes, so that the compiler turns a loop of it
// into vector instructions.
constexpr std::uint8_t valueOf(std::uint8_t c) {
  const auto mask = [](bool condition) { return static_cast<std::uint8_t>(-static_cast<int>(condition)); };
  const auto upper = static_cast<std::uint8_t>(c - 'A');
  const auto lower = static_cast<std::uint8_t>(c - 'a');
  const auto digit = static_cast<std::uint8_t>(c - '0');
  const std::uint8_t isUpper = mask(upper < 26), isLower = mask(lower < 26), isDigit = mask(digit < 10),
                     isPlus = mask(c == '+'), isSlash = mask(c == '/');
  return static_cast<std::uint8_t>(
      (isUpper & upper) | (isLower & static_cast<std::uint8_t>(lower + 26)) |
      (isDigit & static_cast<std::uint8_t>(digit + 52)) | (isPlus & 62) | (isSlash & 63) |
      static_cast<std::uint8_t>(~(isUpper | isLower | isDigit | isPlus | isSlash)));
}

constexpr bool kernelAgreesWithTable() {
  for (unsigned c = 0; c < 256; ++c)
    if (valueOf(static_cast<std::uint8_t>(c)) != table[c]) return false;
  return true;
}
static_assert(kernelAgreesWithTable());

// Packs eight 6-bit values into six bytes; writes eight.
void packEight(const std::uint8_t* values, std::uint8_t* bytes) {
  static_assert(std::endian::native == std::endian::little);
  std::uint64_t x;
  std::memcpy(&x, values, sizeof x);
  x = ((x & 0x003F003F003F003F) << 6) | ((x >> 8) & 0x003F003F003F003F);    // 12 bits in each 16
  x = ((x & 0x00000FFF00000FFF) << 12) | ((x >> 16) & 0x00000FFF00000FFF);  // 24 bits in each 32
  const auto bigEndian = [](std::uint64_t bits24) {
    return ((bits24 >> 16) & 0xFF) | (bits24 & 0xFF00) | ((bits24 & 0xFF) << 16);
  };
  x = bigEndian(x & 0xFFFFFF) | (bigEndian(x >> 32) << 24);
  std::memcpy(bytes, &x, sizeof x);
}

}  // namespace

std::optional<std::size_t> decodeBase64(std::string_view text, std::uint8_t* bytes) {
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return 0;
  const auto* at = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto* const lastQuad = at + text.size() - 4;
  std::uint8_t* out = bytes;
  std::uint8_t bad = 0;

  constexpr std::ptrdiff_t run = 256;  // characters a round
  while (lastQuad - at >= run) {
    std::uint8_t values[run];
    for (std::ptrdiff_t i = 0; i < run; ++i) {
      values[i] = valueOf(at[i]);
      bad |= values[i];
    }
    for (std::ptrdiff_t i = 0; i < run; i += 8, out += 6) packEight(values + i, out);
    at += run;
  }
  const auto packFour = [&bad](const std::uint8_t* quad) {
    std::uint32_t bits = 0;
    for (int i = 0; i < 4; ++i) {
      const std::uint8_t value = table[quad[i]];
      bad |= value;
      bits = (bits << 6) | (value & 0x3F);
    }
    return bits;
  };
  for (; at < lastQuad; at += 4, out += 3) {
    const std::uint32_t bits = packFour(at);
    out[0] = static_cast<std::uint8_t>(bits >> 16);
    out[1] = static_cast<std::uint8_t>(bits >> 8);
    out[2] = static_cast<std::uint8_t>(bits);
  }

  // The last four characters may end in one or two padding signs.
  std::array<std::uint8_t, 4> quad{at[0], at[1], at[2], at[3]};
  std::size_t padding = 0;
  while (padding < 2 && quad[3 - padding] == '=') quad[3 - padding++] = 'A';
  const std::uint32_t bits = packFour(quad.data());
  const std::array<std::uint8_t, 3> last{static_cast<std::uint8_t>(bits >> 16),
                                         static_cast<std::uint8_t>(bits >> 8),
                                         static_cast<std::uint8_t>(bits)};
  std::memcpy(out, last.data(), 3 - padding);
  if (bad & 0xC0) return std::nullopt;
  return static_cast<std::size_t>(out - bytes) + 3 - padding;
}

}  // namespace palaver
