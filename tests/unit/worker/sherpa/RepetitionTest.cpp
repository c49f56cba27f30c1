#include "worker/sherpa/Repetition.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace palaver {
namespace {

std::vector<SpokenWord> wordsOf(const std::string& text) {
  std::vector<SpokenWord> words;
  std::istringstream stream(text);
  for (std::string word; stream >> word;) words.push_back({word});
  return words;
}

constexpr std::int64_t second = speechSampleRate;

TEST(Repetition, RepeatedWordsAtEndAreFound) {
  EXPECT_EQ(repetitionAtEnd(wordsOf("well five five five five")), (Repetition{1, 1}));
  EXPECT_EQ(repetitionAtEnd(wordsOf("10 of clubs 10 of clubs 10 of")), (Repetition{0, 3}));
}

TEST(Repetition, PunctuationAndCaseMakeNoDifference) {
  EXPECT_EQ(repetitionAtEnd(wordsOf("Five, five, five, five.")), (Repetition{0, 1}));
}

TEST(Repetition, WordsRepeatedOnceOrTwiceAreSpeech) {
  EXPECT_EQ(repetitionAtEnd(wordsOf("no no no")).length, 0U);
  EXPECT_EQ(repetitionAtEnd(wordsOf("I said I said so")).length, 0U);
  EXPECT_EQ(repetitionAtEnd({}).length, 0U);
}

TEST(Repetition, RepetitionBeforeOtherWordsIsSpeech) {
  EXPECT_EQ(repetitionAtEnd(wordsOf("five five five five men")).length, 0U);
}

TEST(Repetition, IsRunawayOnlyBeyondFastestSpeech) {
  const auto words = wordsOf("five five five five five five five five");
  EXPECT_TRUE(isRunaway(words, 2 * second - 1));
  EXPECT_FALSE(isRunaway(words, 2 * second));
}

TEST(Repetition, FastSpeechWithoutRepetitionIsKept) {
  EXPECT_FALSE(isRunaway(wordsOf("and then he went away again at once"), second / 2));
}

TEST(Repetition, JapaneseCharactersCountAsHalfWord) {
  std::vector<SpokenWord> words(8, SpokenWord{"は", true});
  EXPECT_FALSE(isRunaway(words, second));
  EXPECT_TRUE(isRunaway(words, second - 1));
}

TEST(Repetition, RunawayIsShortenedToWholePatternsThatFit) {
  EXPECT_EQ(withoutRunaway(wordsOf("10 of clubs 10 of clubs 10 of clubs 10"), 3 * second / 2),
            wordsOf("10 of clubs 10 of clubs"));
}

TEST(Repetition, RunawayKeepsItsWordsOnceHoweverShortTheVoice) {
  EXPECT_EQ(withoutRunaway(wordsOf("so five five five five"), 0), wordsOf("so five"));
}

TEST(Repetition, RepetitionThatFitsIsKept) {
  const auto words = wordsOf("ha ha ha ha ha");
  EXPECT_EQ(withoutRunaway(words, 2 * second), words);
}

}  // namespace
}  // namespace palaver
