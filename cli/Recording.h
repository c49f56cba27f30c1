// Reads and writes recordings of what a host and a helper said to each other.
//
// A recording is a text file of JSON objects, one per line, in the order in which things happened:
//
//   {"recording":1,"startedAt":1700000000000.0,"redacted":false,"command":["/path/PalaverSTTHelper"]}
//   {"at":1.5,"from":"host","text":"{\"type\":\"ping\"}\n"}      at: ms since startedAt
//   {"at":2.1,"from":"helper","base64":"/w=="}                   bytes that are not UTF-8
//   {"at":9.0,"from":"helper","end":"exit status 0"}
//
// `from`: "host" is the helper's standard input, "helper" its standard output, "diagnostics" its standard
// error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/Descriptor.h"

namespace palaver::cli {

enum class Speaker { host, helper, diagnostics };

struct RecordedPiece {
  double at = 0;  // ms since the start of the recording
  Speaker from = Speaker::host;
  std::string bytes;
};

struct RecordedConversation {
  double startedAt = 0;  // ms since the Unix epoch
  bool isRedacted = false;
  std::vector<std::string> command;
  std::vector<RecordedPiece> pieces;
  std::optional<std::string> end;  // how the helper ended; none: the recording was cut off
};

// Reads a recording. Accepts one that was cut off in the middle of a line. Throws std::runtime_error with the
// path and the reason.
RecordedConversation readConversation(const std::filesystem::path& path);

// Writes a recording piece by piece. Each piece is in the file when add() returns, so a crash loses nothing
// that was recorded before.
class RecordingWriter {
 public:
  // With `redacted`, neither words nor audio are kept: lines are recorded whole, with audio replaced by its
  // length and loudness, and texts by their number of characters. Creates the file with mode 0600. Throws
  // std::runtime_error when it exists already or cannot be created.
  RecordingWriter(const std::filesystem::path& path, const std::vector<std::string>& command,
                  double startedAt, bool redacted);

  // Throws std::runtime_error when the file cannot be written.
  void add(double at, Speaker from, std::string_view bytes);
  void end(double at, const std::string& how);

 private:
  void addLines(double at, Speaker from, std::string_view bytes);
  void writeLine(std::string line);

  Descriptor file_;
  std::string path_;
  bool redacted_;
  std::string unfinished_[3];  // bytes after the last line feed, by speaker; only when redacted
};

// Returns a line of the protocol without words and audio. Bytes that are no JSON object become their number.
std::string redactedLine(std::string_view line);

}  // namespace palaver::cli
