#include "platform/linux/Pronunciations.h"

#include <gtest/gtest.h>

namespace palaver {
namespace {

TEST(Pronunciations, AWordOfTheLexiconIsSpokenAsItSays) {
  EXPECT_EQ(pronunciation("hello"), "HH AH L OW");
  EXPECT_EQ(pronunciation("it's"), "IH T S");
}

TEST(Pronunciations, AnUnknownWordIsSpokenByRule) {
  EXPECT_EQ(pronunciation("palaver"), "P AE L AA V ER");
}

TEST(Pronunciations, WhatIsNotLowerCaseEnglishLettersIsNotSpoken) {
  EXPECT_EQ(pronunciation(""), "");
  EXPECT_EQ(pronunciation("Hello"), "");
  EXPECT_EQ(pronunciation("a b"), "");
  EXPECT_EQ(pronunciation("42"), "");
  EXPECT_EQ(pronunciation("日本"), "");
}

}  // namespace
}  // namespace palaver
