// Parses the arguments of `palaver-stt transcribe`.
#pragma once

#include <istream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/ArgumentReader.h"
#include "platform/audio/SampleFormat.h"

namespace palaver::cli {

enum class TranscriptFormat { text, srt, vtt, json };

inline constexpr const char* standardInputPath = "-";

struct TranscribeArguments {
  std::string remote;               // path of a sound file, or standardInputPath
  std::optional<std::string> self;  // the same, but not both
  std::optional<RawFormat> raw;     // of headerless samples, when stated
  TranscriptFormat format = TranscriptFormat::text;
  std::optional<std::string> output;  // path of the transcript; none: standard output
  std::optional<std::string> helper;
  std::vector<std::string> helperArguments;
  std::string locale = "en-US";
  std::vector<std::string> vocabulary;
  double speed = 1;   // factor of real time
  bool json = false;  // the helper's events instead of a transcript
  bool help = false;

  bool readsStandardInput() const { return remote == standardInputPath || self == standardInputPath; }
};

// Returns the phrases of a vocabulary file, a JSON array of strings in UTF-8. None for anything else.
std::optional<std::vector<std::string>> parseVocabulary(std::istream& file);

// Parses the arguments after the program's name. Options and files may be in any order. Both "--option value"
// and "--option=value" are accepted. Reads the vocabulary file, a JSON array of strings. Throws UsageError
// with a message for the user.
TranscribeArguments parseTranscribeArguments(std::span<const std::string> arguments);

extern const std::string_view transcribeUsage;

}  // namespace palaver::cli
