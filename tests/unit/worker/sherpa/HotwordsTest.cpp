#include "worker/sherpa/Hotwords.h"

#include <gtest/gtest.h>

namespace palaver {
namespace {

TEST(Hotwords, PhrasesAreSeparatedBySlashes) {
  EXPECT_EQ(hotwordsOf({"予算", "Palaver"}), "予算/Palaver");
}

TEST(Hotwords, SpecialCharactersAreRemoved) {
  EXPECT_EQ(hotwordsOf({"a :x", "b/c", "#d@e", " \n", "::"}), "a x/b c/d e");
}

TEST(Hotwords, LettersGetCaseOfTokens) {
  EXPECT_EQ(hotwordsOf({"Palaver 2", "\u00DCber"}, LetterCase::both), "Palaver 2/\u00DCber");
  EXPECT_EQ(hotwordsOf({"Palaver 2", "\u00DCber"}, LetterCase::upper), "PALAVER 2/\u00DCBER");
  EXPECT_EQ(hotwordsOf({"Palaver 2", "\u00DCber"}, LetterCase::lower), "palaver 2/\u00DCber");
}

TEST(Hotwords, UnitFollowsTokens) {
  SherpaModel model;
  EXPECT_EQ(hotwordUnit(model), "");
  model.hasWordPieces = true;
  EXPECT_EQ(hotwordUnit(model), "") << "without bpe.vocab the library would crash";
  model.bpeVocabulary = "bpe.vocab";
  EXPECT_EQ(hotwordUnit(model), "bpe");
  model.hasCharacterTokens = true;
  EXPECT_EQ(hotwordUnit(model), "cjkchar+bpe");
  model.bpeVocabulary.clear();
  EXPECT_EQ(hotwordUnit(model), "cjkchar");
}

}  // namespace
}  // namespace palaver
