#include "cli/TranscriptDisplay.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "cli/TextLayout.h"

namespace palaver::cli {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

// Emulates the terminal functions that the display uses: text, line feeds, carriage returns, moving up,
// erasing to the end of the screen, and colours. Overlong lines wrap visibly.
class Screen {
 public:
  explicit Screen(std::size_t columns) : columns_(columns) {}

  void write(std::string_view bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
      if (bytes[at] == '\x1b') {
        at = control(bytes, at + 2);
      } else if (bytes[at] == '\n') {
        ++row_;
        column_ = 0;
        ++at;
      } else if (bytes[at] == '\r') {
        column_ = 0;
        ++at;
      } else {
        put(bytes[at++]);
      }
    }
  }

  std::string text() const {
    std::string all;
    for (const auto& line : lines_) {
      for (const auto& cell : line) all += cell;
      all += '\n';
    }
    return all;
  }

  bool wrapped = false;

 private:
  std::size_t control(std::string_view bytes, std::size_t at) {
    const auto end = bytes.find_first_of("AJm", at);
    if (bytes.at(end) == 'A') row_ -= std::stoul(std::string(bytes.substr(at, end - at)));
    if (bytes.at(end) == 'J') {
      lines_.resize(row_ + 1);
      lines_[row_].resize(column_);
    }
    return end + 1;
  }

  void put(char byte) {
    if ((static_cast<unsigned char>(byte) & 0xC0) == 0x80) {  // continues a UTF-8 character
      lines_.at(row_).at(column_ - 1) += byte;
      return;
    }
    if (column_ == columns_) {
      wrapped = true;
      ++row_;
      column_ = 0;
    }
    if (lines_.size() <= row_) lines_.resize(row_ + 1);
    lines_[row_].resize(std::max(lines_[row_].size(), column_ + 1), " ");
    lines_[row_][column_++] = byte;
  }

  std::size_t columns_;
  std::size_t row_ = 0;
  std::size_t column_ = 0;
  std::vector<std::vector<std::string>> lines_;  // rows of cells with one character each
};

class TranscriptDisplayTest : public ::testing::Test {
 protected:
  TranscriptDisplay makeDisplay(bool terminal, bool latency = true) {
    TranscriptDisplay::Style style;
    style.colours = terminal;
    style.partials = !terminal;
    style.latency = latency;
    const auto output = [this](std::string_view bytes) {
      screen.write(bytes);
      bytesWritten += bytes;
    };
    const auto width = [] { return std::size_t{columns}; };
    if (terminal) return TranscriptDisplay(style, output, width, output, width);
    return TranscriptDisplay(style, output, width);
  }

  static void show(TranscriptDisplay& display, const nlohmann::json& event) {
    display.onEvent(event.dump(), event);
  }

  static nlohmann::json partial(const char* source, const std::string& text) {
    return {{"type", "transcript.partial"}, {"source", source}, {"text", text}, {"utteranceId", "u"}};
  }

  static nlohmann::json final(const char* source, const std::string& text) {
    return {{"type", "transcript.final"},
            {"source", source},
            {"text", text},
            {"startedAt", 1500.0},
            {"speechEndedAt", 3240.0},
            {"latencyMs", 912.4},
            {"endpointing", {{"reason", "silence"}}}};
  }

  static constexpr std::size_t columns = 80;
  Screen screen{columns};
  std::string bytesWritten;
};

const char* const longText =
    "and mister john dashwood had then leisure to consider how much there might be prudently in his power to "
    "do "
    "for them and so on";

TEST_F(TranscriptDisplayTest, StatusAndItsMeaningAreFirst) {
  auto display = makeDisplay(false);
  show(display, {{"type", "helper.status"},
                 {"status", "setup-required"},
                 {"available", false},
                 {"implementation", "engine"},
                 {"modelStatus", "unavailable"},
                 {"message", "Download the model."}});
  show(display, {{"type", "session.ready"}, {"available", true}, {"locale", "en-US"}});
  EXPECT_EQ(bytesWritten,
            "helper  setup-required (engine, model unavailable)\n"
            "        Download the model.\n"
            "session en-US is ready\n");
}

TEST_F(TranscriptDisplayTest, FinalShowsTimesLatencyAndReason) {
  auto display = makeDisplay(false);
  display.onStreamStart(1000);
  show(display, final("remote", "good morning"));
  EXPECT_EQ(bytesWritten,
            "remote  good morning\n"
            "        0.5 s - 2.2 s, latency 912 ms, ended by silence\n");
}

TEST_F(TranscriptDisplayTest, NoLatencyIsShownOutsideRealTime) {
  auto display = makeDisplay(false, false);
  show(display, final("self", "good morning"));
  display.finish(true);
  EXPECT_THAT(bytesWritten, Not(HasSubstr("latency")));
}

TEST_F(TranscriptDisplayTest, WithoutTerminalPartialsAreLinesWithoutControls) {
  auto display = makeDisplay(false);
  show(display, partial("remote", "good"));
  show(display, partial("remote", "good"));
  show(display, partial("remote", "good morning"));
  display.onProgress(100, 1000);
  display.onProblem("it went wrong");
  display.finish(false);
  EXPECT_EQ(bytesWritten,
            "remote  ... good\n"
            "remote  ... good morning\n"
            "error   it went wrong\n"
            "failed  1 error\n");
}

TEST_F(TranscriptDisplayTest, OnTerminalPartialsAreRewrittenBelowFinals) {
  auto display = makeDisplay(true);
  display.onStreamStart(1000);
  display.onProgress(100, 1000);
  show(display, partial("self", "he"));
  show(display, partial("remote", "good"));
  show(display, partial("remote", "good morning"));
  EXPECT_EQ(screen.text(),
            "remote  good morning\n"
            "self    he\n"
            "        [####----------------------------------] 0.1 s of 1.0 s\n");
  show(display, final("remote", "good morning all"));
  EXPECT_EQ(screen.text(),
            "remote  good morning all\n"
            "        0.5 s - 2.2 s, latency 912 ms, ended by silence\n"
            "self    he\n"
            "        [####----------------------------------] 0.1 s of 1.0 s\n");
}

TEST_F(TranscriptDisplayTest, LiveLinesAreErasedAtEnd) {
  auto display = makeDisplay(true);
  display.onStreamStart(1000);
  show(display, partial("remote", "good"));
  show(display, final("remote", "good morning all"));
  display.onProgress(2000, 1000);
  EXPECT_THAT(screen.text(), HasSubstr("awaiting the last words"));
  display.finish(true);
  EXPECT_THAT(screen.text(), EndsWith("remote  1 final, 3 words, mean latency 912 ms\n"
                                      "done    completed\n"));
  EXPECT_THAT(screen.text(), Not(HasSubstr("[#")));
}

TEST_F(TranscriptDisplayTest, NothingIsWiderThanTerminal) {
  auto display = makeDisplay(true);
  display.onStreamStart(1000);
  display.onProgress(100, 7100);
  show(display, partial("remote", longText));
  show(display, partial("self", longText));
  EXPECT_THAT(screen.text(), HasSubstr("for them and so on\n"));  // the newest words matter
  show(display, final("remote", longText));
  display.onProblem(longText);
  display.onDiagnostic(longText);
  display.finish(false);
  EXPECT_FALSE(screen.wrapped);
}

TEST_F(TranscriptDisplayTest, TextCannotMoveCursor) {
  auto display = makeDisplay(true);
  show(display, final("remote", "good\x1b[2Jmorning"));
  EXPECT_THAT(screen.text(), HasSubstr("good?[2Jmorning"));
}

TEST_F(TranscriptDisplayTest, ErrorEventsNameTheirSource) {
  auto display = makeDisplay(false);
  show(display, {{"type", "helper.error"}, {"source", "self"}, {"message", "it failed"}});
  EXPECT_EQ(bytesWritten, "error   self: it failed\n");
}

TEST_F(TranscriptDisplayTest, LinesAndLiveLinesMayGoToDifferentPlaces) {
  std::string lines;
  TranscriptDisplay display(
      {}, [&lines](std::string_view bytes) { lines += bytes; }, [] { return std::size_t{columns}; },
      [this](std::string_view bytes) { screen.write(bytes); }, [] { return std::size_t{columns}; });
  display.onStreamStart(1000);
  display.onProgress(500, 1000);
  show(display, partial("remote", "go"));
  EXPECT_THAT(screen.text(), HasSubstr("remote  go"));
  EXPECT_THAT(screen.text(), HasSubstr("0.5 s of 1.0 s"));
  show(display, final("remote", "go forward"));
  display.finish(true);
  EXPECT_EQ(screen.text().find_first_not_of(" \n"), std::string::npos);
  EXPECT_THAT(lines, HasSubstr("remote  ... go\n"));
  EXPECT_THAT(lines, HasSubstr("remote  go forward\n"));
  EXPECT_THAT(lines, Not(HasSubstr("\x1b")));
  EXPECT_THAT(lines, Not(HasSubstr(" of ")));
}

TEST_F(TranscriptDisplayTest, UnknownLengthHasNoBar) {
  auto display = makeDisplay(true);
  display.onStreamStart(1000);
  display.onProgress(61500, 0);
  EXPECT_THAT(screen.text(), HasSubstr("1:01.5, until the input ends"));
  EXPECT_THAT(screen.text(), Not(HasSubstr("[")));
}

}  // namespace
}  // namespace palaver::cli
