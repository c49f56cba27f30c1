// Notifies an observer before the process ends.
#pragma once

#include <functional>
#include <utility>

#include "platform/Process.h"

namespace palaver {

class WatchedProcess final : public Process {
 public:
  // Calls `beforeEnd` with the status, on the thread that ends the process. The real process must outlive
  // this object.
  WatchedProcess(Process& real, std::function<void(int)> beforeEnd)
      : real_(real), beforeEnd_(std::move(beforeEnd)) {}

  const std::vector<std::string>& arguments() const override { return real_.arguments(); }
  std::optional<std::string> environmentVariable(std::string_view name) const override {
    return real_.environmentVariable(name);
  }
  bool isMacOSAtLeast(OperatingSystemVersion version) const override { return real_.isMacOSAtLeast(version); }

 private:
  void terminate(int status) override {
    beforeEnd_(status);
    real_.exit(status);
  }

  Process& real_;
  const std::function<void(int)> beforeEnd_;
};

}  // namespace palaver
