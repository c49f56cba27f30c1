// Compares the white space that is trimmed with the platform's own set, from the real Foundation.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/Text.h"

namespace palaver {
namespace {

std::string utf8(std::uint32_t point) {
  std::string out;
  if (point < 0x80) {
    out += static_cast<char>(point);
  } else if (point < 0x800) {
    out += {static_cast<char>(0xC0 | point >> 6), static_cast<char>(0x80 | (point & 0x3F))};
  } else if (point < 0x10000) {
    out += {static_cast<char>(0xE0 | point >> 12), static_cast<char>(0x80 | (point >> 6 & 0x3F)),
            static_cast<char>(0x80 | (point & 0x3F))};
  } else {
    out += {static_cast<char>(0xF0 | point >> 18), static_cast<char>(0x80 | (point >> 12 & 0x3F)),
            static_cast<char>(0x80 | (point >> 6 & 0x3F)), static_cast<char>(0x80 | (point & 0x3F))};
  }
  return out;
}

TEST(WhiteSpaceTest, TrimmedCharactersAreThoseOfThePlatform) {
  const auto set = CFCharacterSetGetPredefined(kCFCharacterSetWhitespaceAndNewline);
  std::vector<std::uint32_t> platform;
  std::vector<std::uint32_t> trimmed;
  for (std::uint32_t point = 0; point < 0x110000; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    if (CFCharacterSetIsLongCharacterMember(set, point)) platform.push_back(point);
    if (trimWhitespaceAndNewlines(utf8(point)).empty()) trimmed.push_back(point);
  }
  EXPECT_EQ(trimmed, platform);
  EXPECT_EQ(platform.size(), 26U);
}

}  // namespace
}  // namespace palaver
