#include "cli/LineSplitter.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace palaver::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LineSplitterTest : public ::testing::Test {
 protected:
  void append(std::string_view bytes) {
    splitter.append(bytes, [this](std::string_view line) { lines.emplace_back(line); });
  }
  void finish() {
    splitter.finish([this](std::string_view line) { lines.emplace_back(line); });
  }

  LineSplitter splitter;
  std::vector<std::string> lines;
};

TEST_F(LineSplitterTest, LineMayArriveInPieces) {
  for (const char byte : std::string("one\n\ntwo\n")) append({&byte, 1});
  EXPECT_THAT(lines, ElementsAre("one", "", "two"));
}

TEST_F(LineSplitterTest, OnlyLineFeedEndsLine) {
  append("a\u2028b\u2029c\u0085d\re\vf\n");
  EXPECT_THAT(lines, ElementsAre("a\u2028b\u2029c\u0085d\re\vf"));
}

TEST_F(LineSplitterTest, LastLineMayLackLineFeed) {
  append("one\ntwo");
  EXPECT_THAT(lines, ElementsAre("one"));
  finish();
  EXPECT_THAT(lines, ElementsAre("one", "two"));
  finish();
  EXPECT_EQ(lines.size(), 2U);
}

TEST_F(LineSplitterTest, EndlessLineIsRejected) {
  const std::string megabyte(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 16; ++i) append(megabyte);
  EXPECT_THROW(append("x"), std::length_error);
  append("\nnext\n");
  EXPECT_THAT(lines, ElementsAre("", "next"));
}

}  // namespace
}  // namespace palaver::cli
