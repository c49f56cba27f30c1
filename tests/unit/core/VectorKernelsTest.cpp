// Compares every implementation that this processor runs with the plain one.
#include "core/VectorKernels.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/Base64Nibbles.h"

namespace palaver {
namespace {

constexpr std::size_t mostBytes = 300;  // several rounds of the widest loop, and a rest of any length

class VectorKernelsTest : public testing::TestWithParam<const VectorKernels*> {
 protected:
  const VectorKernels& kernels() const { return *GetParam(); }

  // Returns the offset at which the text ends. The bytes after it end text too, so that reading them as text
  // shows.
  std::size_t textEnd(std::string_view text) const {
    const auto bytes = std::make_unique<char[]>(text.size() + vectorPadding);
    std::fill_n(std::copy(text.begin(), text.end(), bytes.get()), vectorPadding, '"');
    const char* const end = bytes.get() + text.size();
    return static_cast<std::size_t>(kernels().findTextEnd(bytes.get(), end) - bytes.get());
  }

  struct Decoded {
    bool valid;
    std::vector<std::uint8_t> bytes;  // empty when invalid
    friend bool operator==(const Decoded&, const Decoded&) = default;
  };

  // Decodes into exactly the room that the groups take. The address sanitizer, or else canaries, detect more.
  static Decoded decode(const VectorKernels& kernels, std::string_view text) {
    constexpr std::size_t canaries = 64;
    constexpr std::uint8_t canary = 0xC5;
    const std::size_t groups = text.size() / 4;
    const auto exactText = std::make_unique<char[]>(text.size());
    std::copy(text.begin(), text.end(), exactText.get());
    const auto exact = std::make_unique<std::uint8_t[]>(groups * 3);
    const bool valid = kernels.decodeBase64Groups(exactText.get(), groups, exact.get());

    std::vector<std::uint8_t> guarded(groups * 3 + canaries, canary);
    EXPECT_EQ(kernels.decodeBase64Groups(text.data(), groups, guarded.data()), valid);
    EXPECT_EQ(std::count(guarded.begin() + static_cast<std::ptrdiff_t>(groups * 3), guarded.end(), canary),
              static_cast<std::ptrdiff_t>(canaries))
        << "written behind the decoded bytes";
    if (!valid) return {false, {}};
    return {true, {exact.get(), exact.get() + groups * 3}};
  }

  std::uint64_t sum(const std::vector<std::int16_t>& samples) const {
    const auto exact = std::make_unique<std::int16_t[]>(samples.size());
    std::copy(samples.begin(), samples.end(), exact.get());
    return kernels().sumOfSquares(exact.get(), samples.size());
  }
};

INSTANTIATE_TEST_SUITE_P(Kernels, VectorKernelsTest,
                         testing::ValuesIn(supportedVectorKernels().begin(), supportedVectorKernels().end()),
                         [](const auto& tested) {
                           std::string name(tested.param->name);
                           std::erase(name, '.');
                           return name;
                         });

TEST_P(VectorKernelsTest, EveryByteAtEveryPositionEndsTextLikeReference) {
  const std::string plain(mostBytes, 'x');
  for (std::size_t at = 0; at < mostBytes; ++at)
    for (int byte = 0; byte < 256; ++byte) {
      std::string text = plain;
      text[at] = static_cast<char>(byte);
      const bool ends = byte < 0x20 || byte >= 0x80 || byte == '"' || byte == '\\';
      ASSERT_EQ(textEnd(text), ends ? at : mostBytes) << at << " " << byte;
    }
}

TEST_P(VectorKernelsTest, FirstOfSeveralTextEndsIsFound) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % mostBytes, ' ');
    for (auto& c : text) c = static_cast<char>(0x20 + random() % 0x60);  // some are ends
    for (std::size_t ends = random() % 3; ends > 0 && !text.empty(); --ends)
      text[random() % text.size()] = static_cast<char>(random() % 256);
    const char* const begin = text.data();
    ASSERT_EQ(textEnd(text),
              static_cast<std::size_t>(plainKernels.findTextEnd(begin, begin + text.size()) - begin));
  }
}

TEST_P(VectorKernelsTest, TextOfEveryLengthEndsAtItsLimit) {
  for (std::size_t length = 0; length <= 2 * mostBytes; ++length)
    ASSERT_EQ(textEnd(std::string(length, 'A')), length);
}

TEST_P(VectorKernelsTest, EveryCharacterAtEveryPositionIsDecodedLikeReference) {
  std::mt19937 random(2);
  std::string text(mostBytes, ' ');
  for (auto& c : text) c = base64Alphabet[random() % base64Alphabet.size()];
  int valid = 0;
  for (std::size_t at = 0; at < text.size(); ++at)
    for (int character = 0; character < 256; ++character) {
      std::string changed = text;
      changed[at] = static_cast<char>(character);
      const auto decoded = decode(kernels(), changed);
      ASSERT_EQ(decoded, decode(plainKernels, changed)) << at << " " << character;
      ASSERT_EQ(decoded.valid, base64Alphabet.find(static_cast<char>(character)) != std::string_view::npos);
      valid += decoded.valid;
    }
  EXPECT_EQ(valid, static_cast<int>(mostBytes * 64));
}

TEST_P(VectorKernelsTest, EveryNumberOfGroupsIsDecodedLikeReference) {
  std::mt19937 random(3);
  for (std::size_t groups = 0; groups <= mostBytes; ++groups) {
    std::string text(groups * 4, ' ');
    for (auto& c : text) c = base64Alphabet[random() % base64Alphabet.size()];
    ASSERT_EQ(decode(kernels(), text), decode(plainKernels, text)) << groups;
    ASSERT_TRUE(decode(kernels(), text).valid);
  }
}

TEST_P(VectorKernelsTest, SquaresOfEveryNumberOfSamplesAreSummedLikeReference) {
  std::mt19937 random(4);
  for (std::size_t count = 0; count <= mostBytes; ++count) {
    std::vector<std::int16_t> samples(count);
    for (auto& sample : samples) sample = static_cast<std::int16_t>(random());
    std::uint64_t expected = 0;
    for (const std::int64_t sample : samples) expected += static_cast<std::uint64_t>(sample * sample);
    ASSERT_EQ(sum(samples), expected) << count;
  }
}

TEST_P(VectorKernelsTest, SampleAtEveryPositionCounts) {
  std::vector<std::int16_t> samples(100);
  for (std::size_t at = 0; at < samples.size(); ++at) {
    samples[at] = static_cast<std::int16_t>(at + 1);
    ASSERT_EQ(sum(samples), (at + 1) * (at + 1)) << at;
    samples[at] = 0;
  }
}

TEST_P(VectorKernelsTest, LoudestSamplesDoNotOverflow) {
  constexpr std::size_t count = 1 << 20;
  for (const auto sample :
       {std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max()})
    EXPECT_EQ(sum(std::vector<std::int16_t>(count, sample)),
              count * static_cast<std::uint64_t>(std::int64_t{sample} * sample));
}

TEST(SupportedVectorKernelsTest, ReferenceIsFirstAndFastestIsLast) {
  const auto all = supportedVectorKernels();
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.front(), &plainKernels);
  EXPECT_EQ(all.back(), &fastestVectorKernels());
  std::vector<std::string_view> names{"plain"};
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse4.1")) names.emplace_back("sse4.1");
  if (__builtin_cpu_supports("avx2")) names.emplace_back("avx2");
#elif defined(__aarch64__)
  names.emplace_back("neon");
#endif
  ASSERT_EQ(all.size(), names.size());
  for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i]->name, names[i]);
}

}  // namespace
}  // namespace palaver
