#include "core/UTF8.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace palaver {
namespace {

// The definition by code points: decodes leniently, then checks that this is the only encoding of the value.
bool isOneCodePoint(std::string_view bytes) {
  const auto byte = [&](std::size_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i]));
  };
  const std::size_t size = bytes.size();
  for (std::size_t i = 1; i < size; ++i)
    if (byte(i) >> 6 != 2) return false;
  std::uint32_t value = 0;
  switch (size) {
    case 1:
      return byte(0) < 0x80;
    case 2:
      if (byte(0) >> 5 != 6) return false;
      value = byte(0) & 0x1F;
      break;
    case 3:
      if (byte(0) >> 4 != 14) return false;
      value = byte(0) & 0xF;
      break;
    case 4:
      if (byte(0) >> 3 != 30) return false;
      value = byte(0) & 7;
      break;
    default:
      return false;
  }
  for (std::size_t i = 1; i < size; ++i) value = value << 6 | (byte(i) & 0x3F);
  constexpr std::uint32_t lowest[] = {0, 0, 0x80, 0x800, 0x10000};
  return value >= lowest[size] && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

bool isValidByDefinition(std::string_view bytes) {
  if (bytes.empty()) return true;
  for (std::size_t size = 1; size <= std::min<std::size_t>(4, bytes.size()); ++size)
    if (isOneCodePoint(bytes.substr(0, size))) return isValidByDefinition(bytes.substr(size));
  return false;
}

std::string text(std::uint32_t bytes, int size) {
  std::string out;
  for (int i = size - 1; i >= 0; --i) out += static_cast<char>(bytes >> (8 * i) & 0xFF);
  return out;
}

TEST(UTF8Test, EmptyTextIsValid) {
  EXPECT_TRUE(isValidUTF8({}));
}

TEST(UTF8Test, Sequences1To3BytesMatchDefinition) {
  for (int size = 1; size <= 3; ++size)
    for (std::uint32_t bytes = 0; bytes < 1U << (8 * size); ++bytes) {
      const auto sequence = text(bytes, size);
      ASSERT_EQ(isValidUTF8(sequence), isValidByDefinition(sequence)) << std::hex << bytes;
    }
}

TEST(UTF8Test, FourByteSequenceEdgesMatchDefinition) {
  constexpr std::uint32_t edges[] = {0x00, 0x22, 0x7F, 0x80, 0x81, 0x8F, 0x90,
                                     0x9F, 0xA0, 0xBE, 0xBF, 0xC0, 0xFF};
  int valid = 0;
  for (std::uint32_t lead = 0xE0; lead <= 0xFF; ++lead)
    for (std::uint32_t second = 0; second < 256; ++second)
      for (const auto third : edges)
        for (const auto fourth : edges) {
          const auto sequence = text(lead << 24 | second << 16 | third << 8 | fourth, 4);
          ASSERT_EQ(isValidUTF8(sequence), isValidByDefinition(sequence))
              << std::hex << lead << " " << second;
          valid += isValidUTF8(sequence);
        }
  EXPECT_GT(valid, 0);
}

TEST(UTF8Test, EveryCodePointIsValid) {
  std::string all;
  for (std::uint32_t point = 0; point <= 0x10FFFF; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    std::string one;
    if (point < 0x80) {
      one = text(point, 1);
    } else if (point < 0x800) {
      one = text((0xC0 | point >> 6) << 8 | (0x80 | (point & 0x3F)), 2);
    } else if (point < 0x10000) {
      one = text((0xE0 | point >> 12) << 16 | (0x80 | (point >> 6 & 0x3F)) << 8 | (0x80 | (point & 0x3F)), 3);
    } else {
      one = text((0xF0 | point >> 18) << 24 | (0x80 | (point >> 12 & 0x3F)) << 16 |
                     (0x80 | (point >> 6 & 0x3F)) << 8 | (0x80 | (point & 0x3F)),
                 4);
    }
    ASSERT_TRUE(isValidUTF8(one)) << std::hex << point;
    all += one;
  }
  EXPECT_TRUE(isValidUTF8(all));
  all.back() = static_cast<char>(0xC0);
  EXPECT_FALSE(isValidUTF8(all));
}

TEST(UTF8Test, ErrorIsFoundAtEveryPosition) {
  const std::string valid = "ascii é あ 😀 ascii ascii ascii";
  ASSERT_TRUE(isValidUTF8(valid));
  for (std::size_t at = 0; at <= valid.size(); ++at)
    for (const auto* const bad : {"\xFF", "\x80\x80\x80\x80", "\xF0\x9F", "\xED\xA0\x80"}) {
      std::string line = valid;
      ASSERT_FALSE(isValidUTF8(line.insert(at, bad))) << at;
    }
}

TEST(UTF8Test, NoByteAfterTextIsRead) {
  // Each text is truncated at the end of its memory, so the address sanitizer reports any further byte.
  for (const auto* const truncated : {"\xC3", "\xE3\x81", "\xE3", "\xF0\x9F\x98", "\xF0\x9F", "\xF0"}) {
    const std::vector<char> exact(truncated, truncated + std::char_traits<char>::length(truncated));
    EXPECT_FALSE(isValidUTF8({exact.data(), exact.size()}));
  }
}

}  // namespace
}  // namespace palaver
