// Forwards to the real process but reports a configurable operating system.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/posix/POSIXProcess.h"
#include "simulator/machine/SimulatedMachine.h"

namespace palaver {

class ClaimedProcess final : public Process {
 public:
  // `arguments` are the helper's, without the program path. Without `macOS` the system is not macOS.
  ClaimedProcess(std::span<char*> arguments, std::optional<OperatingSystemVersion> macOS)
      : ClaimedProcess(withProgram(arguments), macOS) {}

  const std::vector<std::string>& arguments() const override { return process_.arguments(); }
  std::optional<std::string> environmentVariable(std::string_view name) const override {
    return process_.environmentVariable(name);
  }
  bool isMacOSAtLeast(OperatingSystemVersion version) const override {
    return macOS_ && isAtLeast(*macOS_, version);
  }

 private:
  ClaimedProcess(std::vector<char*> arguments, std::optional<OperatingSystemVersion> macOS)
      : process_(static_cast<int>(arguments.size()), arguments.data()), macOS_(macOS) {}

  static std::vector<char*> withProgram(std::span<char*> arguments) {
    static char program[] = "PalaverSTTHelper";
    std::vector<char*> all(arguments.begin(), arguments.end());
    all.insert(all.begin(), program);
    return all;
  }
  void terminate(int status) override { process_.exit(status); }

  POSIXProcess process_;
  const std::optional<OperatingSystemVersion> macOS_;
};

}  // namespace palaver
