#include "cli/TranscribeArguments.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace palaver::cli {
namespace {

using ::testing::ElementsAre;

TranscribeArguments parse(const std::vector<std::string>& arguments) {
  return parseTranscribeArguments(arguments);
}

std::string failure(const std::vector<std::string>& arguments) {
  try {
    parse(arguments);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "no failure";
}

TEST(TranscribeArgumentsTest, OptionsAndFilesMayBeInAnyOrder) {
  const auto arguments = parse({"a.wav", "--locale", "ja-JP", "b.wav", "--speed=2.5", "--json",
                                "--vocabulary", "甲,b,,c d", "--helper=x"});
  EXPECT_EQ(arguments.remote, "a.wav");
  EXPECT_EQ(arguments.self, "b.wav");
  EXPECT_EQ(arguments.locale, "ja-JP");
  EXPECT_EQ(arguments.speed, 2.5);
  EXPECT_TRUE(arguments.json);
  EXPECT_THAT(arguments.vocabulary, ElementsAre("甲", "b", "c d"));
  EXPECT_EQ(arguments.helper, "x");
}

TEST(TranscribeArgumentsTest, HelperMayHaveArguments) {
  EXPECT_THAT(parse({"a", "--helper-argument", "b", "--helper-argument=--c=d"}).helperArguments,
              ElementsAre("b", "--c=d"));
}

TEST(TranscribeArgumentsTest, DefaultsAreEnglishInRealTime) {
  const auto arguments = parse({"a.wav"});
  EXPECT_EQ(arguments.locale, "en-US");
  EXPECT_EQ(arguments.speed, 1);
  EXPECT_FALSE(arguments.json);
  EXPECT_EQ(arguments.self, std::nullopt);
  EXPECT_EQ(arguments.helper, std::nullopt);
}

TEST(TranscribeArgumentsTest, StandardInputHasARawFormat) {
  const auto arguments = parse({"-", "-r", "48000", "--channels=2", "--self", "b.wav"});
  EXPECT_EQ(arguments.remote, "-");
  EXPECT_EQ(arguments.self, "b.wav");
  ASSERT_TRUE(arguments.raw);
  EXPECT_EQ(arguments.raw->sampleRate, 48000);
  EXPECT_EQ(arguments.raw->channelCount, 2);
  EXPECT_TRUE(arguments.readsStandardInput());
  EXPECT_EQ(parse({"-"}).raw, std::nullopt);
  EXPECT_TRUE(parse({"a.wav", "-"}).readsStandardInput());
  EXPECT_EQ(parse({"a.raw", "--rate", "8000"}).raw->channelCount, 1);
}

TEST(TranscribeArgumentsTest, TranscriptHasAFormatAndAPlace) {
  EXPECT_EQ(parse({"a"}).format, TranscriptFormat::text);
  EXPECT_EQ(parse({"a", "--format", "vtt", "-o", "b"}).format, TranscriptFormat::vtt);
  EXPECT_EQ(parse({"a", "--format=json", "--output=b"}).output, "b");
}

TEST(TranscribeArgumentsTest, BadUsageIsExplained) {
  EXPECT_EQ(failure({"a", "b", "--self", "c"}), "too many sound files: expected REMOTE and optionally SELF");
  EXPECT_EQ(failure({"-", "-"}), "standard input can be only one of both sides");
  EXPECT_EQ(failure({"a", "--format", "doc"}), "--format takes text, srt, vtt or json, not 'doc'");
  EXPECT_EQ(failure({"a", "--json", "-o", "b"}),
            "--json prints events, and goes without --format and --output");
  EXPECT_EQ(failure({"a.wav", "--rate", "8000"}),
            "--rate and --channels describe raw samples, and other files state their own");
  for (const char* rate : {"0", "-1", "44.1", "x", "", "1000001", "99999999999"})
    EXPECT_EQ(failure({"-", "--rate", rate}),
              std::string("--rate takes a whole number from 1 to 1000000, not '") + rate + "'");
  EXPECT_EQ(failure({"-", "-c", "257"}), "-c takes a whole number from 1 to 256, not '257'");
  EXPECT_EQ(failure({}), "missing sound file");
  EXPECT_EQ(failure({"a", "b", "c"}), "too many sound files: expected REMOTE and optionally SELF");
  EXPECT_EQ(failure({"a", "--fast"}), "unknown option --fast");
  EXPECT_EQ(failure({"a", "--locale"}), "--locale needs a value");
  EXPECT_EQ(failure({"a", "--json=yes"}), "--json takes no value");
  for (const char* speed : {"0", "-1", "x", "nan", "inf", "1x", "", " 2", "2 ", "2,5"})
    EXPECT_EQ(failure({"a", "--speed", speed}),
              std::string("--speed takes a number from 0.1 to 100, not '") + speed + "'");
}

TEST(TranscribeArgumentsTest, VocabularyFileIsArrayOfStrings) {
  const auto path =
      std::filesystem::temp_directory_path() / ("palaver-vocabulary-" + std::to_string(::getpid()));
  const auto write = [&](const char* json) { std::ofstream(path) << json; };
  write(R"(["Dashwood","議事録"])");
  EXPECT_THAT(parse({"a", "--vocabulary-file", path}).vocabulary, ElementsAre("Dashwood", "議事録"));
  for (const char* wrong : {"", "{}", "[1]", "[\"a\""}) {
    write(wrong);
    EXPECT_EQ(failure({"a", "--vocabulary-file", path}),
              "the vocabulary file " + path.string() + " is not a JSON array of strings");
  }
  std::filesystem::remove(path);
  EXPECT_EQ(failure({"a", "--vocabulary-file", path}), "cannot read the vocabulary file " + path.string());
}

}  // namespace
}  // namespace palaver::cli
