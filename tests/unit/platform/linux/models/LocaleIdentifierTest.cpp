#include "platform/linux/models/LocaleIdentifier.h"

#include <gtest/gtest.h>

namespace palaver {
namespace {

TEST(LocaleIdentifier, UsualFormHasLowerLanguageHyphenAndUpperRegion) {
  EXPECT_EQ(canonicalLocale("JA_jp"), "ja-JP");
  EXPECT_EQ(canonicalLocale("yue"), "yue");
  EXPECT_EQ(canonicalLocale("es-419"), "es-419");
  EXPECT_EQ(canonicalLocale("ja-JP-x"), std::nullopt);
}

TEST(LocaleIdentifier, CharactersBesideLettersAreNoLanguage) {
  for (const auto* identifier : {"a@", "[b", "`c", "d{", "1a", "a1-US"})
    EXPECT_EQ(canonicalLocale(identifier), std::nullopt) << identifier;
}

}  // namespace
}  // namespace palaver
