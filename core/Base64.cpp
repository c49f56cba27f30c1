#include "core/Base64.h"

#include <array>
#include <bit>
#include <cstring>

namespace palaver {

namespace {

static_assert(std::endian::native == std::endian::little, "decoded bytes are put together in a word");

// Marks characters outside the alphabet. The bit lies above the three bytes of every valid entry.
constexpr std::uint32_t invalid = std::uint32_t{1} << 24;

// Maps a character to its part of the three decoded bytes, as a little-endian word. There is one table per
// position in the group of four, so the four words only need to be or-ed together. Faster than what compilers
// make of the arithmetic with baseline vector instructions.
using Table = std::array<std::uint32_t, 256>;

constexpr std::array<Table, 4> makeTables() {
  std::array<Table, 4> made{};
  for (auto& table : made) table.fill(invalid);
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::uint32_t value = 0; value < alphabet.size(); ++value) {
    const auto character = static_cast<unsigned char>(alphabet[value]);
    made[0][character] = value << 2;
    made[1][character] = (value >> 4) | ((value & 0xF) << 12);
    made[2][character] = ((value >> 2) << 8) | ((value & 0x3) << 22);
    made[3][character] = value << 16;
  }
  return made;
}

constexpr auto tables = makeTables();

// Returns the three bytes of a group. An invalid group sets the `invalid` bit.
std::uint32_t decodeGroup(const std::uint8_t* group) {
  return tables[0][group[0]] | tables[1][group[1]] | tables[2][group[2]] | tables[3][group[3]];
}

}  // namespace

std::optional<std::size_t> decodeBase64(std::string_view text, std::uint8_t* bytes) {
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return 0;
  const auto* at = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto* const lastGroup = at + text.size() - 4;
  std::uint8_t* out = bytes;
  std::uint32_t seen = 0;
  for (; at < lastGroup; at += 4, out += 3) {
    const std::uint32_t group = decodeGroup(at);
    seen |= group;
    std::memcpy(out, &group, sizeof group);  // the fourth byte is overwritten by the next group
  }

  // The last group may end in one or two padding characters.
  std::array<std::uint8_t, 4> last{at[0], at[1], at[2], at[3]};
  std::size_t padding = 0;
  while (padding < 2 && last[3 - padding] == '=') last[3 - padding++] = 'A';
  const std::uint32_t group = decodeGroup(last.data());
  seen |= group;
  std::memcpy(out, &group, 3 - padding);
  if (seen & invalid) return std::nullopt;
  return static_cast<std::size_t>(out - bytes) + 3 - padding;
}

}  // namespace palaver
