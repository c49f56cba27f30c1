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

}  // namespace palaver::cli
