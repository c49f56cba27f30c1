#include "platform/linux/models/SpeechModelFiles.h"

#include <gtest/gtest.h>

namespace palaver {
namespace {

TEST(SpeechModelFiles, LocaleDirectoryIsLowerCaseWithHyphen) {
  EXPECT_EQ(modelDirectoryName("en-US"), "en-us");
  EXPECT_EQ(modelDirectoryName("en_US"), "en-us");
  EXPECT_EQ(modelDirectoryName("EN-us"), "en-us");
  EXPECT_EQ(modelDirectoryName("ja-JP"), "ja-jp");
  EXPECT_EQ(modelDirectoryName("de"), "de");
  EXPECT_EQ(modelDirectoryName("es-419"), "es-419");
  EXPECT_EQ(modelDirectoryName("haw-US"), "haw-us");
}

TEST(SpeechModelFiles, InvalidLocaleHasNoDirectory) {
  using namespace std::string_view_literals;
  for (const auto identifier :
       {""sv,      "-"sv,      "e"sv,      "en-"sv,          "-US"sv,    "en--US"sv, "en-U"sv,  "en-USA"sv,
        "en-U1"sv, "en-12"sv,  "en-US-"sv, "not a locale"sv, "../x"sv,   "en/US"sv,  "en-.."sv, ".."sv,
        "日本"sv,  "en-US "sv, " en-US"sv, "en-US\0"sv,      "e\0-US"sv, "english"sv})
    EXPECT_FALSE(modelDirectoryName(identifier)) << identifier;
}

TEST(SpeechModelFiles, DirectoryWithoutModelIsNotInstalled) {
  EXPECT_FALSE(SpeechModelFiles("/nonexistent", "en-us").areInstalled());
  EXPECT_FALSE(SpeechModelFiles(systemModelRoot, "ja-jp").areInstalled());
}

TEST(SpeechModelFiles, SystemModelIsInstalled) {
  EXPECT_TRUE(SpeechModelFiles(systemModelRoot, "en-us").areInstalled());
}

}  // namespace
}  // namespace palaver
