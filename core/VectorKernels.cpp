#include "core/VectorKernels.h"

#include <array>
#include <bit>
#include <cstring>
#include <vector>

#include "core/Base64Nibbles.h"
#include "core/VectorInstructions.h"

namespace palaver {

namespace {

static_assert(std::endian::native == std::endian::little, "decoded bytes are put together in a word");

const char* findTextEnd(const char* at, const char* end) {
  while (at < end && static_cast<signed char>(*at) >= 0x20 && *at != '"' && *at != '\\') ++at;
  return at;
}

// Marks characters outside the alphabet. The bit lies above the three bytes of every valid entry.
constexpr std::uint32_t invalid = std::uint32_t{1} << 24;

// Maps a character to its part of the three decoded bytes, as a little-endian word. There is one table per
// position in the group of four, so the four words only need to be or-ed together. Faster than what compilers
// make of the arithmetic with baseline vector instructions.
using Table = std::array<std::uint32_t, 256>;

constexpr std::array<Table, 4> makeTables() {
  std::array<Table, 4> made{};
  for (auto& table : made) table.fill(invalid);
  for (std::uint32_t value = 0; value < base64Alphabet.size(); ++value) {
    const auto character = static_cast<unsigned char>(base64Alphabet[value]);
    made[0][character] = value << 2;
    made[1][character] = (value >> 4) | ((value & 0xF) << 12);
    made[2][character] = ((value >> 2) << 8) | ((value & 0x3) << 22);
    made[3][character] = value << 16;
  }
  return made;
}

constexpr auto tables = makeTables();

// Returns the three bytes of a group. A character outside the alphabet sets the `invalid` bit.
std::uint32_t decodeGroup(const std::uint8_t* group) {
  return tables[0][group[0]] | tables[1][group[1]] | tables[2][group[2]] | tables[3][group[3]];
}

bool decodeBase64Groups(const char* text, std::size_t groups, std::uint8_t* bytes) {
  if (groups == 0) return true;
  const auto* at = reinterpret_cast<const std::uint8_t*>(text);
  const auto* const lastGroup = at + (groups - 1) * 4;
  std::uint32_t seen = 0;
  for (; at < lastGroup; at += 4, bytes += 3) {
    const std::uint32_t group = decodeGroup(at);
    seen |= group;
    std::memcpy(bytes, &group, sizeof group);  // the fourth byte is overwritten by the next group
  }
  const std::uint32_t group = decodeGroup(lastGroup);
  seen |= group;
  std::memcpy(bytes, &group, 3);
  return (seen & invalid) == 0;
}

std::uint64_t sumOfSquares(const std::int16_t* samples, std::size_t count) {
  std::uint64_t sum = 0;
  std::size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const auto a = static_cast<std::uint32_t>(samples[i] * samples[i]);
    const auto b = static_cast<std::uint32_t>(samples[i + 1] * samples[i + 1]);
    sum += a + b;  // at most 2³¹
  }
  if (i < count) sum += static_cast<std::uint32_t>(samples[i] * samples[i]);
  return sum;
}

}  // namespace

const VectorKernels plainKernels{"plain", findTextEnd, decodeBase64Groups, sumOfSquares};

#if !defined(__x86_64__) && !defined(__aarch64__)
void addVectorInstructionKernels(std::vector<const VectorKernels*>&) {}
#endif

std::span<const VectorKernels* const> supportedVectorKernels() {
  static const std::vector<const VectorKernels*> all = [] {
    std::vector<const VectorKernels*> found{&plainKernels};
    addVectorInstructionKernels(found);
    return found;
  }();
  return all;
}

const VectorKernels& fastestVectorKernels() {
  static const VectorKernels& fastest = *supportedVectorKernels().back();
  return fastest;
}

}  // namespace palaver
