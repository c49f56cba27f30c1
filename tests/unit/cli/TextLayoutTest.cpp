#include "cli/TextLayout.h"

#include <gmock/gmock.h>

namespace palaver::cli {
namespace {

using ::testing::ElementsAre;

TEST(TextLayoutTest, JapaneseTakes2ColumnsCombiningMarks0) {
  EXPECT_EQ(columnsOf("abc"), 3U);
  EXPECT_EQ(columnsOf("議事録"), 6U);
  EXPECT_EQ(columnsOf("e\u0301"), 1U);
  EXPECT_EQ(columnsOf("\xFF"), 1U);
}

TEST(TextLayoutTest, CursorControlsAreNotShown) {
  EXPECT_EQ(printable("a\x1b[2Jb\rc\nd\te\x7F"), "a?[2Jb?c d e?");
  EXPECT_EQ(printable("a\u0085b\u2028c\u202Ed"), "a?b c?d");
  EXPECT_EQ(printable("\xE8\xAD議\xC0\xAF"), "??議??");
}

TEST(TextLayoutTest, EndOfLongTextIsKept) {
  EXPECT_EQ(lastColumns("one two", 7), "one two");
  EXPECT_EQ(lastColumns("one two", 6), "…e two");
  EXPECT_EQ(lastColumns("議事録議事録", 6), "…事録");
  EXPECT_EQ(lastColumns("one", 0), "");
}

TEST(TextLayoutTest, LinesBreakAtSpaces) {
  EXPECT_THAT(wrap("one two three four", 9), ElementsAre("one two", "three", "four"));
  EXPECT_THAT(wrap("one two", 7), ElementsAre("one two"));
  EXPECT_THAT(wrap("", 7), ElementsAre(""));
}

TEST(TextLayoutTest, TextWithoutSpacesBreaksInsideWords) {
  EXPECT_THAT(wrap("議事録を読む", 5), ElementsAre("議事", "録を", "読む"));
  EXPECT_THAT(wrap("a abcdefg b", 4), ElementsAre("a", "abcd", "efg", "b"));
}

TEST(TextLayoutTest, BarIsFullAtEndAndNeverFuller) {
  EXPECT_EQ(progressBar(0, 12), "[----------]");
  EXPECT_EQ(progressBar(0.5, 12), "[#####-----]");
  EXPECT_EQ(progressBar(1.7, 12), "[##########]");
  EXPECT_EQ(progressBar(0.0 / 0.0, 5), "[---]");
}

TEST(TextLayoutTest, PositionsAreInMinutesAndSeconds) {
  EXPECT_EQ(position(0), "0.0 s");
  EXPECT_EQ(position(12345), "12.3 s");
  EXPECT_EQ(position(62300), "1:02.3");
  EXPECT_EQ(position(-5), "0.0 s");
}

}  // namespace
}  // namespace palaver::cli
