// Implements a process of a POSIX system. It is not macOS, unless a subclass overrides that.
#pragma once

#include "platform/Process.h"

namespace palaver {

class POSIXProcess : public Process {
 public:
  POSIXProcess(int argumentCount, char** arguments) : arguments_(arguments, arguments + argumentCount) {}

  const std::vector<std::string>& arguments() const override { return arguments_; }
  std::optional<std::string> environmentVariable(std::string_view name) const override;
  bool isMacOSAtLeast(OperatingSystemVersion) const override { return false; }

 private:
  void terminate(int status) override;

  const std::vector<std::string> arguments_;
};

}  // namespace palaver
