// The command line of palaver-host.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace palaver::host {

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct HostArguments {
  std::string remote;               // path of a sound file
  std::optional<std::string> self;  // path of a sound file
  std::optional<std::string> helper;
  std::vector<std::string> helperArguments;
  std::string locale = "en-US";
  std::vector<std::string> vocabulary;
  double speed = 1;  // audio seconds a second
  bool json = false;
  bool help = false;
};

// Reads the arguments behind the program's name; options and files in any order, "--option value" or
// "--option=value". Reads the vocabulary's file, a JSON array of strings. Throws UsageError with a sentence
// for the user.
HostArguments parseHostArguments(std::span<const std::string> arguments);

extern const std::string_view hostUsage;

}  // namespace palaver::host
