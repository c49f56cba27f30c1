#include "core/Text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace palaver {
namespace {

std::string utf8(char32_t point) {
  std::string out;
  if (point < 0x80) {
    out += static_cast<char>(point);
  } else if (point < 0x800) {
    out += static_cast<char>(0xC0 | point >> 6);
    out += static_cast<char>(0x80 | (point & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | point >> 12);
    out += static_cast<char>(0x80 | (point >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (point & 0x3F));
  }
  return out;
}

// Unicode: general category Zs, tab, the newlines, and U+200B, as Foundation has it.
bool isMember(char32_t point) {
  switch (point) {
    case U'\t':
    case U' ':
    case 0xA0:
    case 0x1680:
    case 0x202F:
    case 0x205F:
    case 0x3000:
    case 0x85:
    case 0x2028:
    case 0x2029:
      return true;
    default:
      return (point >= 0x2000 && point <= 0x200B) || (point >= 0x0A && point <= 0x0D);
  }
}

TEST(TextTest, ExactlyWhiteSpaceOfBasicPlaneIsTrimmed) {
  int members = 0;
  for (char32_t point = 0; point < 0x10000; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    const auto character = utf8(point);
    ASSERT_EQ(trimWhitespaceAndNewlines(character).empty(), isMember(point))
        << std::hex << std::uint32_t{point};
    const std::string word = character + "x" + character + "y" + character;
    const std::string kept = isMember(point) ? "x" + character + "y" : word;
    ASSERT_EQ(trimWhitespaceAndNewlines(word), kept) << std::hex << std::uint32_t{point};
    members += isMember(point);
  }
  EXPECT_EQ(members, 26);
}

TEST(TextTest, OtherInvisibleCharactersAreKept) {
  for (const char32_t point :
       {U'\u200C', U'\u200D', U'\u2060', U'\uFEFF', U'\u180E', U'\u00AD', U'\0', U'\x1C', U'\x1F'})
    EXPECT_EQ(trimWhitespaceAndNewlines(utf8(point)), utf8(point)) << std::hex << std::uint32_t{point};
}

TEST(TextTest, BytesThatAreNotUTF8AreKept) {
  // Each differs from white space in its last byte only, which is no continuation byte.
  for (const std::string text : {"\xC2\x25", "\xE1\x9A\x7F", "\xE2\x80\x7F", "\xE2\x81\x5F", "\xE3\x80\x7F"})
    EXPECT_EQ(trimWhitespaceAndNewlines(text), text);
}

TEST(TextTest, MixedWhiteSpaceIsTrimmedWhole) {
  std::string all;
  for (char32_t point = 0; point <= 0x3000; ++point)
    if (isMember(point)) all += utf8(point);
  EXPECT_EQ(trimWhitespaceAndNewlines(all), "");
  EXPECT_EQ(trimWhitespaceAndNewlines(all + all), "");
  EXPECT_EQ(trimWhitespaceAndNewlines(all + "a b" + all), "a b");
  EXPECT_EQ(trimWhitespaceAndNewlines(""), "");
}

TEST(TextTest, MalformedBytesAreKept) {
  for (const std::string bytes : {"\xC2", "\xE3\x80", "\xE2\x80", "\x80", "\xA0", "\x85", "\x80\x80", "\xE3",
                                  "\xFF", "\xC2\x20\xA0", "\xE2\xC2\xA0\x80"}) {
    const std::string spaced = " " + bytes + "\n";
    EXPECT_EQ(trimWhitespaceAndNewlines(bytes), bytes);
    EXPECT_EQ(trimWhitespaceAndNewlines(spaced), bytes);
  }
}

TEST(TextTest, TrimmedTextIsView) {
  const std::string text = "\t  text \n";
  const auto trimmed = trimWhitespaceAndNewlines(text);
  EXPECT_EQ(trimmed.data(), text.data() + 3);
  EXPECT_EQ(trimmed.size(), 4U);
}

TEST(TextTest, SearchIgnoresCase) {
  EXPECT_TRUE(containsCaseInsensitively("Siri and Dictation are disabled", "dictation"));
  EXPECT_TRUE(containsCaseInsensitively("DICTATION", "dictation"));
  EXPECT_TRUE(containsCaseInsensitively("xdictation", "dictation"));
  EXPECT_TRUE(containsCaseInsensitively("音声Dictationです", "dictation"));
  EXPECT_TRUE(containsCaseInsensitively("abc", ""));
  EXPECT_TRUE(containsCaseInsensitively("", ""));
  EXPECT_FALSE(containsCaseInsensitively("", "dictation"));
  EXPECT_FALSE(containsCaseInsensitively("dictatio", "dictation"));
  EXPECT_FALSE(containsCaseInsensitively("dict ation", "dictation"));
  EXPECT_FALSE(containsCaseInsensitively("ＤＩＣＴＡＴＩＯＮ", "dictation"));
}

TEST(TextTest, OnlyLettersHaveCase) {
  EXPECT_FALSE(containsCaseInsensitively("[", "{"));
  EXPECT_FALSE(containsCaseInsensitively("@", "`"));
  EXPECT_FALSE(containsCaseInsensitively("\xC1", "a"));
  EXPECT_TRUE(containsCaseInsensitively("AZ", "az"));
}

}  // namespace
}  // namespace palaver
