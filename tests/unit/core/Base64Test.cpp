#include "core/Base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace palaver {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

using Bytes = std::vector<std::uint8_t>;

// Decodes with every implementation that this processor runs, into exactly the memory that the decoder
// requires. The address sanitizer, or else canaries, detect a write beyond it.
std::optional<Bytes> decode(std::string_view text) {
  constexpr std::size_t canaries = 64;
  constexpr std::uint8_t canary = 0xC5;
  const std::size_t room = decodedBase64Size(text);
  std::optional<Bytes> decoded;
  for (const VectorKernels* const kernels : supportedVectorKernels()) {
    const auto exact = std::make_unique<std::uint8_t[]>(room);
    const auto size = decodeBase64(text, exact.get(), *kernels);

    Bytes guarded(room + canaries, canary);
    EXPECT_EQ(decodeBase64(text, guarded.data(), *kernels), size);
    for (std::size_t i = size.value_or(room); i < guarded.size(); ++i)
      EXPECT_EQ(guarded[i], canary) << "written at " << i;
    if (size) {
      EXPECT_EQ(*size, room);
    }
    const auto bytes = size ? std::optional(Bytes(exact.get(), exact.get() + *size)) : std::nullopt;
    if (kernels == &plainKernels) decoded = bytes;
    EXPECT_EQ(bytes, decoded) << kernels->name << " " << text;
  }
  return decoded;
}

// Decodes by the rules of the standard, one bit at a time.
std::optional<Bytes> decodeByRules(std::string text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && !text.empty() && text.back() == '=') {
    text.pop_back();
    ++padding;
  }
  std::vector<bool> bits;
  for (const char c : text) {
    const auto value = alphabet.find(c);
    if (value == std::string_view::npos) return std::nullopt;
    for (int bit = 5; bit >= 0; --bit) bits.push_back((value >> bit) & 1);
  }
  Bytes bytes(bits.size() / 8);
  for (std::size_t i = 0; i < bytes.size() * 8; ++i)
    bytes[i / 8] = static_cast<std::uint8_t>(bytes[i / 8] << 1 | (bits[i] ? 1 : 0));
  return bytes;
}

std::string encode(const Bytes& bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    unsigned group = 0;
    for (std::size_t i = 0; i < 3; ++i) group = group << 8 | (at + i < bytes.size() ? bytes[at + i] : 0U);
    for (std::size_t i = 0; i < 4; ++i)
      text += at + i > bytes.size() ? '=' : alphabet[(group >> (18 - 6 * i)) & 0x3F];
  }
  return text;
}

Bytes randomBytes(std::size_t size, std::mt19937& random) {
  Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

TEST(Base64Test, RFC4648VectorsAreDecoded) {
  // RFC 4648, section 10.
  const auto decoded = [](std::string_view text) {
    const auto bytes = decode(text);
    return bytes ? std::string(bytes->begin(), bytes->end()) : "invalid";
  };
  EXPECT_EQ(decoded(""), "");
  EXPECT_EQ(decoded("Zg=="), "f");
  EXPECT_EQ(decoded("Zm8="), "fo");
  EXPECT_EQ(decoded("Zm9v"), "foo");
  EXPECT_EQ(decoded("Zm9vYg=="), "foob");
  EXPECT_EQ(decoded("Zm9vYmE="), "fooba");
  EXPECT_EQ(decoded("Zm9vYmFy"), "foobar");
}

TEST(Base64Test, Lengths0To600AreDecoded) {
  std::mt19937 random(1);
  for (std::size_t size = 0; size <= 600; ++size) {
    const auto bytes = randomBytes(size, random);
    ASSERT_EQ(decode(encode(bytes)), bytes) << size;
  }
}

TEST(Base64Test, RunsOfOneByteValueAreDecoded) {
  for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFB, 0xFF}) {
    const Bytes bytes(777, static_cast<std::uint8_t>(value));
    ASSERT_EQ(decode(encode(bytes)), bytes) << value;
  }
}

TEST(Base64Test, EveryCharacterAtEveryPositionMatchesReference) {
  // Long enough for a vector run of 256 characters, the rest after it, and the last four.
  std::mt19937 random(2);
  const std::string text = encode(randomBytes(213, random));
  ASSERT_EQ(text.size(), 284U);
  for (std::size_t at = 0; at < text.size(); ++at)
    for (int character = 0; character < 256; ++character) {
      std::string changed = text;
      changed[at] = static_cast<char>(character);
      const auto expected = decodeByRules(changed);
      for (const VectorKernels* const kernels : supportedVectorKernels()) {
        std::uint8_t room[base64BufferSize(284)];
        const auto size = decodeBase64(changed, room, *kernels);
        ASSERT_EQ(size.has_value(), expected.has_value()) << kernels->name << " " << at << " " << character;
        if (size) {
          ASSERT_EQ(Bytes(room, room + *size), *expected) << kernels->name << " " << at << " " << character;
        }
      }
    }
}

TEST(Base64Test, LengthNotMultipleOf4IsRejected) {
  for (std::size_t size = 0; size <= 600; ++size)
    EXPECT_EQ(decode(std::string(size, 'A')).has_value(), size % 4 == 0) << size;
}

TEST(Base64Test, PaddingIsAllowedOnlyAtEndAndAtMostTwice) {
  for (const auto* const text : {"=",        "==",       "===",   "====",   "A===",  "AA=A",     "A=AA",
                                 "=AAA",     "==AA",     "A==A",  "A=A=",   "=AA=",  "AA==AAAA", "AAA=AAAA",
                                 "AA==AA==", "AAAA====", "AAAA=", "AAAA==", "AA= =", "AA=\n",    "AA==\n"})
    EXPECT_FALSE(decode(text)) << text;
  EXPECT_EQ(decode("AA=="), Bytes(1));
  EXPECT_EQ(decode("AAA="), Bytes(2));
}

TEST(Base64Test, TrailingBitsAreDropped) {
  EXPECT_EQ(decode("Zh=="), Bytes{'f'});
  EXPECT_EQ(decode("Z/=="), Bytes{'g'});
  EXPECT_EQ(decode("Zm9="), (Bytes{'f', 'o'}));
}

TEST(Base64Test, LineBreaksSpacesAndOtherAlphabetsAreRejected) {
  using namespace std::string_view_literals;
  for (const auto text : {"AAAA\nAAA"sv, "AAA\nAAAA"sv, "AAAA\r\nAA"sv, "AA AAAA="sv, " AAA"sv, "AAA "sv,
                          "A-__"sv, "AAA\0"sv, "AAA\xC3"sv, "あA"sv, "AA%3D%3D"sv, "ＡＡ=="sv})
    EXPECT_FALSE(decode(text)) << text;
}

TEST(Base64Test, RandomTextsMatchReference) {
  std::mt19937 random(3);
  int valid = 0;
  constexpr int rounds = 20000;
  for (int round = 0; round < rounds; ++round) {
    std::string text = encode(randomBytes(random() % 450, random));
    if (random() % 2 == 0 && !text.empty()) {
      const std::string_view candidates = "=\n -_\xFF@[`{,.:";
      text[random() % text.size()] = candidates[random() % candidates.size()];
    }
    if (random() % 8 == 0 && !text.empty()) text.erase(random() % text.size(), 1);
    const auto expected = decodeByRules(text);
    ASSERT_EQ(decode(text), expected) << text;
    valid += expected.has_value();
  }
  EXPECT_GT(valid, rounds / 4);
  EXPECT_LT(valid, rounds * 3 / 4);
}

}  // namespace
}  // namespace palaver
