// Controls which process macOS holds responsible for what this process does. macOS asks for
// permissions in the name of the responsible process: the app that started this one, unless it started
// this one as disclaimed.
#pragma once

#include <spawn.h>

#include <optional>
#include <string>

namespace palaver {

class Responsibility {
 public:
  // Marks spawn attributes. With 1 as the second argument, a process started with them is responsible for
  // itself. Returns 0 on success. Has the signature of responsibility_spawnattrs_setdisclaim, which macOS
  // exports from libSystem and declares in no public header.
  using SetDisclaim = int (*)(posix_spawnattr_t* attributes, int disclaim);

  virtual ~Responsibility() = default;

  // Returns that function of the running system, or null where it does not exist. Main thread.
  virtual SetDisclaim findSetDisclaim() const = 0;

  // Returns the path of the main bundle's executable, which for a program without a bundle is the program
  // itself. Returns none where the system does not provide it. Main thread.
  virtual std::optional<std::string> executablePath() const = 0;

 protected:
  Responsibility() = default;
  Responsibility(const Responsibility&) = default;
  Responsibility& operator=(const Responsibility&) = default;
};

// Returns the machine's own. Each platform defines this function once. Main thread. May be called repeatedly,
// also before makePlatform.
const Responsibility& machineResponsibility();

}  // namespace palaver
