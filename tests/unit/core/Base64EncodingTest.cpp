#include "core/Base64Encoding.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

#include "core/Base64.h"

namespace palaver {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(Base64EncodingTest, RFC4648VectorsAreEncoded) {
  // RFC 4648, section 10.
  const auto encoded = [](std::string_view text) { return encodeBase64(Bytes(text.begin(), text.end())); };
  EXPECT_EQ(encoded(""), "");
  EXPECT_EQ(encoded("f"), "Zg==");
  EXPECT_EQ(encoded("fo"), "Zm8=");
  EXPECT_EQ(encoded("foo"), "Zm9v");
  EXPECT_EQ(encoded("foob"), "Zm9vYg==");
  EXPECT_EQ(encoded("fooba"), "Zm9vYmE=");
  EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
}

TEST(Base64EncodingTest, EveryByteAtEveryPositionIsDecodedBack) {
  for (int value = 0; value < 256; ++value)
    for (std::size_t size = 1; size <= 7; ++size)
      for (std::size_t at = 0; at < size; ++at) {
        Bytes bytes(size, 0x5A);
        bytes[at] = static_cast<std::uint8_t>(value);
        const auto text = encodeBase64(bytes);
        Bytes decoded(decodedBase64Size(text));
        ASSERT_EQ(decodeBase64(text, decoded.data()), size);
        decoded.resize(size);
        ASSERT_EQ(decoded, bytes);
      }
}

TEST(Base64EncodingTest, SamplesAreLittleEndian) {
  EXPECT_EQ(encodePCM(std::vector<std::int16_t>{1, -2, 0x1234}), "AQD+/zQS");
  EXPECT_EQ(encodePCM(std::vector<std::int16_t>{}), "");
}

}  // namespace
}  // namespace palaver
