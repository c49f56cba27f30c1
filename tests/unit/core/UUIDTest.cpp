#include "core/UUID.h"

#include <gmock/gmock.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

namespace palaver {
namespace {

TEST(UUIDTest, FormIsVersion4) {
  std::set<char> variants;
  for (int i = 0; i < 1000; ++i) {
    const auto text = makeUUIDString();
    ASSERT_EQ(text.size(), 36U);
    for (std::size_t at = 0; at < text.size(); ++at) {
      const bool hyphen = at == 8 || at == 13 || at == 18 || at == 23;
      const std::string_view allowed = hyphen ? "-" : "0123456789ABCDEF";
      ASSERT_NE(allowed.find(text[at]), std::string_view::npos) << text;
    }
    ASSERT_EQ(text[14], '4') << text;
    variants.insert(text[19]);
  }
  EXPECT_THAT(variants, ::testing::ElementsAre('8', '9', 'A', 'B'));
}

TEST(UUIDTest, FreeDigitsTakeEveryValue) {
  std::vector<std::set<char>> seen(36);
  for (int i = 0; i < 2000; ++i) {
    const auto text = makeUUIDString();
    for (std::size_t at = 0; at < text.size(); ++at) seen[at].insert(text[at]);
  }
  for (std::size_t at = 0; at < seen.size(); ++at) {
    const bool fixed = at == 8 || at == 13 || at == 18 || at == 23 || at == 14;
    EXPECT_EQ(seen[at].size(), fixed ? 1U : at == 19 ? 4U : 16U) << at;
  }
}

TEST(UUIDTest, WordsAreIndependent) {
  // Two random words share these 24 bits, which are neither version nor variant, once in 16 million times.
  int shared = 0;
  for (int i = 0; i < 100; ++i) {
    auto text = makeUUIDString();
    std::erase(text, '-');
    const auto word = [&text](std::size_t number) {
      return text.substr(number * 8 + 1, 3) + text.substr(number * 8 + 5, 3);
    };
    for (std::size_t a = 0; a < 4; ++a)
      for (std::size_t b = a + 1; b < 4; ++b) shared += word(a) == word(b);
  }
  EXPECT_LE(shared, 2);
}

TEST(UUIDTest, TenThousandFromSeveralThreadsAreDistinct) {
  constexpr std::size_t threads = 4, each = 2500;
  std::vector<std::vector<std::string>> made(threads);
  {
    std::vector<std::thread> makers;
    for (auto& mine : made)
      makers.emplace_back([&mine] {
        for (std::size_t i = 0; i < each; ++i) mine.push_back(makeUUIDString());
      });
    for (auto& maker : makers) maker.join();
  }
  std::set<std::string> all;
  for (const auto& mine : made) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), threads * each);
}

}  // namespace
}  // namespace palaver
