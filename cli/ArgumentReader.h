// Reads the arguments of a command one by one.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace palaver::cli {

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Iterates over the arguments of a command and splits "--option=value". Throws UsageError with a message for
// the user.
class ArgumentReader {
 public:
  explicit ArgumentReader(std::span<const std::string> arguments) : left_(arguments) {}

  bool atEnd() const { return left_.empty(); }

  // Returns the next option or file.
  std::string next() {
    auto argument = left_.front();
    left_ = left_.subspan(1);
    value_.reset();
    const auto equals = argument.find('=');
    if (argument.starts_with("--") && equals != std::string::npos) {
      value_ = argument.substr(equals + 1);
      argument.resize(equals);
    }
    option_ = argument;
    return argument;
  }

  // Returns the value of the current option.
  std::string value() {
    if (value_) return *std::exchange(value_, std::nullopt);
    if (left_.empty()) throw UsageError(option_ + " needs a value");
    auto value = left_.front();
    left_ = left_.subspan(1);
    return value;
  }

  // Throws when the current option has an unwanted value.
  void expectNoValue() const {
    if (value_) throw UsageError(option_ + " takes no value");
  }

 private:
  std::span<const std::string> left_;
  std::string option_;
  std::optional<std::string> value_;
};

// Reads the arguments of a command that takes one file and options. Passes each option to `onOption` with the
// reader, which holds its value; it returns false for an unknown one. Returns the file, or none when the help
// is wanted. `what` names the file in errors. Throws UsageError.
template <typename OnOption>
std::optional<std::string> readOneFile(std::span<const std::string> arguments, const std::string& what,
                                       OnOption&& onOption) {
  std::optional<std::string> file;
  for (ArgumentReader reader(arguments); !reader.atEnd();) {
    const auto argument = reader.next();
    if (argument == "--help" || argument == "-h") {
      return std::nullopt;
    } else if (argument.starts_with("-")) {
      if (!onOption(argument, reader)) throw UsageError("unknown option " + argument);
    } else if (file) {
      throw UsageError("too many files");
    } else {
      file = argument;
    }
    reader.expectNoValue();
  }
  if (!file) throw UsageError("missing " + what);
  return file;
}

}  // namespace palaver::cli
