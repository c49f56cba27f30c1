#include "cli/Captions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace palaver::cli {
namespace {

TEST(CaptionsTest, CaptionsAreNumberedAndTimed) {
  const std::vector<Caption> captions{{100, 3'724'000, "remote", "one"},
                                      {3'725'004, 3'726'000, "self", "two"}};
  EXPECT_EQ(
      srtOf(captions),
      "1\n00:00:00,100 --> 01:02:04,000\nremote: one\n\n2\n01:02:05,004 --> 01:02:06,000\nself: two\n\n");
  EXPECT_EQ(vttOf(captions),
            "WEBVTT\n\n00:00:00.100 --> 01:02:04.000\n<v remote>one\n\n"
            "01:02:05.004 --> 01:02:06.000\n<v self>two\n\n");
}

TEST(CaptionsTest, NoCaptionsAreAnEmptyFile) {
  EXPECT_EQ(srtOf({}), "");
  EXPECT_EQ(vttOf({}), "WEBVTT\n\n");
}

TEST(CaptionsTest, CaptionsAreInOrderOfTheirStart) {
  EXPECT_EQ(srtOf({{2000, 3000, "a", "second"}, {0, 9000, "b", "first"}}),
            "1\n00:00:00,000 --> 00:00:09,000\nb: first\n\n2\n00:00:02,000 --> 00:00:03,000\na: second\n\n");
}

TEST(CaptionsTest, CaptionWithoutTextIsLeftOut) {
  EXPECT_EQ(srtOf({{0, 1000, "a", ""}, {0, 1000, "a", " \n\t"}, {1000, 2000, "a", "x"}}),
            "1\n00:00:01,000 --> 00:00:02,000\na: x\n\n");
  EXPECT_EQ(vttOf({{0, 1000, "a", "\n"}}), "WEBVTT\n\n");
}

TEST(CaptionsTest, LinesAndControlsBecomeOneLine) {
  EXPECT_EQ(vttOf({{0, 1000, "a\n\nb", "\x1b one\r\n\r\n2\n00:00 \x7F two\n"}}),
            "WEBVTT\n\n00:00:00.000 --> 00:00:01.000\n<v a b>one 2 00:00 two\n\n");
}

TEST(CaptionsTest, MarkupIsShown) {
  EXPECT_EQ(vttOf({{0, 1000, "a>b", "<i>&amp;</i> --> x"}}),
            "WEBVTT\n\n00:00:00.000 --> 00:00:01.000\n<v a&gt;b>&lt;i&gt;&amp;amp;&lt;/i&gt; --&gt; x\n\n");
  EXPECT_EQ(srtOf({{0, 1000, "a", "<i>x</i> {\\an8} {y} 1 < 2 --> z"}}),
            "1\n00:00:00,000 --> 00:00:01,000\na: < i>x< /i> { \\an8} {y} 1 < 2 - -> z\n\n");
}

TEST(CaptionsTest, TimesAreOrderedAndFinite) {
  const auto timesOf = [](double start, double end) { return vttOf({{start, end, "a", "x"}}).substr(8, 29); };
  EXPECT_EQ(timesOf(-5000, -4000), "00:00:00.000 --> 00:00:00.500");
  EXPECT_EQ(timesOf(2000, 1000), "00:00:02.000 --> 00:00:02.500");
  EXPECT_EQ(timesOf(1000, 1000), "00:00:01.000 --> 00:00:01.500");
  EXPECT_EQ(timesOf(std::nan(""), std::numeric_limits<double>::infinity()), "00:00:00.000 --> 00:00:00.500");
  EXPECT_EQ(timesOf(1e300, 1e301), "99:59:59.499 --> 99:59:59.999");
}

TEST(CaptionsTest, OtherScriptsAreUnchanged) {
  EXPECT_EQ(srtOf({{0, 1000, "自分", "これは、\n会議です。"}}),
            "1\n00:00:00,000 --> 00:00:01,000\n自分: これは、 会議です。\n\n");
}

}  // namespace
}  // namespace palaver::cli
