#include "worker/pocketsphinx/ContextualModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace palaver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> wordsOf(const std::vector<std::string>& phrases) {
  return ContextualModel(phrases).words();
}

TEST(ContextualModel, WordsAreLowerCaseAndUnique) {
  EXPECT_THAT(wordsOf({"John Dashwood", "Mrs. DASHWOOD"}), ElementsAre("dashwood", "john", "mrs"));
}

TEST(ContextualModel, PunctuationSeparatesAndApostropheIsKept) {
  EXPECT_THAT(wordsOf({"cold-hearted, \"rather\"\nO'Brien's 'quoted'"}),
              ElementsAre("cold", "hearted", "o'brien's", "quoted", "rather"));
}

TEST(ContextualModel, NonEnglishLettersAreLeftOut) {
  EXPECT_THAT(wordsOf({"", " ", "...", "'", "日本語", "naïve 42 4th ok", std::string("\xff\xfe", 2)}),
              ElementsAre("ok"));
  EXPECT_TRUE(ContextualModel(std::vector<std::string>{"日本語", ""}).isEmpty());
}

TEST(ContextualModel, OverlongPhraseOrWordIsCut) {
  std::string phrase;
  for (char a = 'a'; a <= 'z'; ++a)
    for (char b = 'a'; b <= 'z'; ++b) phrase += std::string{a, b, ' '};
  EXPECT_EQ(wordsOf({phrase}).size(), ContextualModel::maxWordsOfPhrase);
  EXPECT_THAT(wordsOf({std::string(10000, 'a')}), IsEmpty());
}

TEST(ContextualModel, RemovingWordsKeepsRestOfPhrase) {
  ContextualModel model(std::vector<std::string>{"good morning", "evening"});
  model.remove(std::vector<std::string>{"evening", "good"});
  EXPECT_THAT(model.words(), ElementsAre("morning"));
  model.remove(std::vector<std::string>{"morning"});
  EXPECT_TRUE(model.isEmpty());
}

TEST(ContextualModel, PhraseProbabilitiesAreARPABigrams) {
  // Seven words: two starts, two ends, and "go" before "on" or before the end.
  const std::string arpa = ContextualModel(std::vector<std::string>{"go on", "go"}).arpa();
  EXPECT_EQ(arpa,
            "\\data\\\nngram 1=4\nngram 2=4\n\n"
            "\\1-grams:\n"
            "-0.544068 </s> 0.000000\n"   // 2 of 7
            "-0.544068 <s> -0.698970\n"   // 2 of 7; its successors leave 0.2 to other words
            "-0.544068 go -0.698970\n"    // 2 of 7
            "-0.845098 on -0.698970\n\n"  // 1 of 7
            "\\2-grams:\n"
            "-0.096910 <s> go\n"   // 0.8
            "-0.397940 go </s>\n"  // 0.8 of 1 in 2
            "-0.397940 go on\n"    // 0.8 of 1 in 2
            "-0.096910 on </s>\n"  // 0.8
            "\n\\end\\\n");
}

}  // namespace
}  // namespace palaver
