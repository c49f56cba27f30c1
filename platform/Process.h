// Provides the process's arguments, environment, operating system version and exit.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver {

struct OperatingSystemVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;
};

class Process {
 public:
  virtual ~Process() = default;

  // Returns every argument, the program's path (argument 0) first. Constant for the life of the
  // process. Any thread.
  virtual const std::vector<std::string>& arguments() const = 0;

  // Returns the value of an environment variable, or none. Main thread.
  virtual std::optional<std::string> environmentVariable(std::string_view name) const = 0;

  // Returns whether this is macOS of at least the given version. False on every other system. Any thread.
  virtual bool isMacOSAtLeast(OperatingSystemVersion version) const = 0;

  // Ends the process immediately with the given status (0 to 255). Nothing is unwound and no destructor runs.
  // Any thread. A simulated process throws an exception instead, which callers must not swallow.
  [[noreturn]] void exit(int status) {
    terminate(status);
    std::abort();
  }

 protected:
  virtual void terminate(int status) = 0;  // does not return

  Process() = default;
  Process(const Process&) = default;
  Process& operator=(const Process&) = default;
};

}  // namespace palaver
