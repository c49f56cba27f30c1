// Parses the arguments of `palaver-stt transcribe`.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/ArgumentReader.h"

namespace palaver::cli {

struct TranscribeArguments {
  std::string remote;               // path of a sound file
  std::optional<std::string> self;  // path of a sound file
  std::optional<std::string> helper;
  std::vector<std::string> helperArguments;
  std::string locale = "en-US";
  std::vector<std::string> vocabulary;
  double speed = 1;  // factor of real time
  bool json = false;
  bool help = false;
};

// Parses the arguments after the program's name. Options and files may be in any order. Both "--option value"
// and "--option=value" are accepted. Reads the vocabulary file, a JSON array of strings. Throws UsageError
// with a message for the user.
TranscribeArguments parseTranscribeArguments(std::span<const std::string> arguments);

extern const std::string_view transcribeUsage;

}  // namespace palaver::cli
