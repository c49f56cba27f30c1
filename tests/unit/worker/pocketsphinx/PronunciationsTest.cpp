#include "worker/pocketsphinx/Pronunciations.h"

#include <gtest/gtest.h>

namespace palaver {
namespace {

TEST(Pronunciations, LexiconWordUsesItsEntry) {
  EXPECT_EQ(pronunciation("hello"), "HH AH L OW");
  EXPECT_EQ(pronunciation("it's"), "IH T S");
}

TEST(Pronunciations, UnknownWordUsesRules) {
  EXPECT_EQ(pronunciation("palaver"), "P AE L AA V ER");
}

TEST(Pronunciations, OtherCharactersHaveNoPronunciation) {
  EXPECT_EQ(pronunciation(""), "");
  EXPECT_EQ(pronunciation("Hello"), "");
  EXPECT_EQ(pronunciation("a b"), "");
  EXPECT_EQ(pronunciation("42"), "");
  EXPECT_EQ(pronunciation("日本"), "");
}

}  // namespace
}  // namespace palaver
