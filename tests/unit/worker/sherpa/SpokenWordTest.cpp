#include "worker/sherpa/SpokenWord.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <limits>

namespace palaver {
namespace {

using testing::ElementsAre;

constexpr std::int64_t second = speechSampleRate;

std::vector<std::string> textsOf(const std::vector<SpokenWord>& words) {
  std::vector<std::string> texts;
  texts.reserve(words.size());
  for (const auto& word : words) texts.push_back(word.text);
  return texts;
}

std::vector<SpokenWord> wordsNamed(std::initializer_list<const char*> texts) {
  std::vector<SpokenWord> words;
  for (const char* text : texts) words.push_back({text, false, 0, 0});
  return words;
}

TEST(SpokenWord, SpaceStartsWord) {
  const std::array<TimedToken, 4> tokens{
      {{" Go", 0}, {" for", second}, {"ward", 2 * second}, {".", 3 * second}}};
  const auto words = wordsOfTokens(tokens, 4 * second);
  EXPECT_THAT(textsOf(words), ElementsAre("Go", "forward."));
  EXPECT_EQ(joinedText(words), "Go forward.");
}

TEST(SpokenWord, TokenOfUnspacedScriptIsWord) {
  const std::array<TimedToken, 5> tokens{
      {{"会議", 0}, {"を", 100}, {"始め", 200}, {"ます", 300}, {"。", 400}}};
  const auto words = wordsOfTokens(tokens, second);
  EXPECT_THAT(textsOf(words), ElementsAre("会議", "を", "始め", "ます。"));
  EXPECT_EQ(joinedText(words), "会議を始めます。");
}

TEST(SpokenWord, TokensOfOneCharacterStayTogether) {
  const std::array<TimedToken, 3> tokens{{{"\xE6\x9C", 0}, {"\x83", 100}, {"ー", 200}}};
  EXPECT_THAT(textsOf(wordsOfTokens(tokens, second)), ElementsAre("\xE6\x9C\x83ー"));
}

TEST(SpokenWord, WordEndsWhereNextStarts) {
  const std::array<TimedToken, 2> tokens{{{" a", second}, {" b", second + 1600}}};
  const auto words = wordsOfTokens(tokens, 4 * second);
  EXPECT_EQ(words[0].startSample, second);
  EXPECT_EQ(words[0].endSample, second + 1600);
}

TEST(SpokenWord, WordBeforePauseEndsHalfSecondAfterItsStart) {
  const std::array<TimedToken, 2> tokens{{{" a", 0}, {" b", 3 * second}}};
  EXPECT_EQ(wordsOfTokens(tokens, 4 * second)[0].endSample, second / 2);
}

TEST(SpokenWord, PunctuationEndsWord) {
  const std::array<TimedToken, 3> tokens{{{" a", 0}, {".", second / 4}, {" b", second}}};
  EXPECT_EQ(wordsOfTokens(tokens, 4 * second)[0].endSample, second / 4);
}

TEST(SpokenWord, TimesStayInsideAudioAndInOrder) {
  const std::array<TimedToken, 3> tokens{{{" a", 2 * second}, {" b", second}, {" c", 9 * second}}};
  const auto words = wordsOfTokens(tokens, 4 * second);
  EXPECT_EQ(words[1].startSample, 2 * second);
  EXPECT_EQ(words[2].startSample, 4 * second);
  EXPECT_EQ(words[2].endSample, 4 * second);
}

TEST(SpokenWord, TextWithoutTokensIsSpreadOverAudio) {
  const auto words = wordsOfText("go on", second, 3 * second);
  ASSERT_EQ(words.size(), 2U);
  EXPECT_EQ(words[0].startSample, second);
  EXPECT_EQ(words[1].startSample, 2 * second);
  EXPECT_EQ(words[1].endSample, 3 * second);
}

TEST(SpokenWord, WordsOfGrowingTextKeepTheirTimes) {
  const auto before = wordsOfGrowingText("one two", {}, 1000, 3000);
  ASSERT_EQ(before.size(), 2U);
  EXPECT_EQ(before[0].startSample, 1000);
  EXPECT_EQ(before[1].endSample, 3000);
  const auto after = wordsOfGrowingText("one two three", before, 5000, 7000);
  ASSERT_EQ(after.size(), 3U);
  EXPECT_EQ(after[0], before[0]);
  EXPECT_EQ(after[1], before[1]);
  EXPECT_EQ(after[2].startSample, 5000);
  EXPECT_EQ(after[2].endSample, 7000);
}

TEST(SpokenWord, WordThatGrewKeepsItsStart) {
  const auto before = wordsOfGrowingText("good even", {}, 0, 10000);
  const auto after = wordsOfGrowingText("good evening", before, 10000, 20000);
  ASSERT_EQ(after.size(), 2U);
  EXPECT_EQ(after[1].startSample, before[1].startSample);
  EXPECT_EQ(after[1].endSample, 20000);
}

TEST(SpokenWord, TokenTimesAreMultiplied) {
  const std::vector<const char*> tokens{" a", " b"};
  const std::vector<float> times{0.5F, 1};
  const auto words = wordsOfResult("a b", tokens.data(), times.data(), 2, 64000, 2);
  ASSERT_EQ(words.size(), 2U);
  EXPECT_EQ(words[0].startSample, 16000);
  EXPECT_EQ(words[1].startSample, 32000);
}

TEST(SpokenWord, ResultWithOtherSpellingKeepsItsText) {
  const std::array<const char*, 2> tokens{" ten", " meters"};
  const std::array<float, 2> times{1.0F, 2.0F};
  const auto words = wordsOfResult("10 meters", tokens.data(), times.data(), 2, 4 * second);
  EXPECT_EQ(joinedText(words), "10 meters");
  EXPECT_EQ(words[0].startSample, second);
}

TEST(SpokenWord, ImpossibleTokenTimesAreClamped) {
  const std::array<const char*, 3> tokens{" a", " b", " c"};
  const std::array<float, 3> times{-1.0F, std::numeric_limits<float>::quiet_NaN(), 1e30F};
  const auto words = wordsOfResult("a b c", tokens.data(), times.data(), 3, second);
  ASSERT_EQ(words.size(), 3U);
  EXPECT_EQ(words[0].startSample, 0);
  EXPECT_EQ(words[1].startSample, 0);
  EXPECT_EQ(words[2].startSample, second);
}

TEST(SpokenWord, BracketedNoiseIsRemoved) {
  EXPECT_EQ(joinedText(withoutNoise(wordsNamed({"[", "Silence", "]"}))), "");
  EXPECT_EQ(joinedText(withoutNoise(wordsNamed({"[BLANK_AUDIO]"}))), "");
  EXPECT_EQ(joinedText(withoutNoise(wordsNamed({"Go", "(wind", "blowing).", "on."}))), "Go on.");
  EXPECT_EQ(joinedText(withoutNoise(wordsNamed({"*laughs*", "yes", "♪", "la♪"}))), "yes la");
  EXPECT_EQ(joinedText(withoutNoise(wordsNamed({"（拍手）", "はい"}))), "はい");
}

TEST(SpokenWord, UnclosedBracketReachesToEnd) {
  EXPECT_EQ(joinedText(withoutNoise(wordsNamed({"Yes.", "(music", "plays"}))), "Yes.");
}

TEST(SpokenWord, ComparisonIgnoresCaseAndPunctuation) {
  EXPECT_EQ(comparable("Forward."), comparable("forward,"));
  EXPECT_EQ(comparable("会議。"), comparable("会議"));
  EXPECT_NE(comparable("it's"), comparable("its"));
}

TEST(SpokenWord, SegmentsOfResultAreInsideAudio) {
  const std::vector<SpokenWord> words{{"a", false, 0, 8000}, {"b", true, 4000, 99999}};
  const auto result = makeResult(words, 16000, true);
  EXPECT_EQ(result.formattedString, "ab");
  EXPECT_TRUE(result.isFinal);
  EXPECT_DOUBLE_EQ(result.segments[1].timestamp + result.segments[1].duration, 1.0);
}

}  // namespace
}  // namespace palaver
