// Who answers to the user for what this process does. macOS asks for permissions in the name of a responsible
// process: the app that started this one, unless this one was started with that disclaimed.
#pragma once

#include <spawn.h>

#include <optional>
#include <string>

namespace palaver {

class Responsibility {
 public:
  // Marks spawn attributes: with 1 as its second argument, a process started with them is responsible for
  // itself. Returns 0 on success. The shape of responsibility_spawnattrs_setdisclaim, which macOS exports
  // from libSystem and declares in no public header.
  using SetDisclaim = int (*)(posix_spawnattr_t* attributes, int disclaim);

  virtual ~Responsibility() = default;

  // That function of the running system, or null where it has none. Main thread.
  virtual SetDisclaim findSetDisclaim() const = 0;

  // The path of the main bundle's executable, which for a program without a bundle is the program itself;
  // none where the system does not tell. Main thread.
  virtual std::optional<std::string> executablePath() const = 0;

 protected:
  Responsibility() = default;
  Responsibility(const Responsibility&) = default;
  Responsibility& operator=(const Responsibility&) = default;
};

// The machine's own; each platform defines this function once. Main thread, any number of times, also before
// makePlatform.
const Responsibility& machineResponsibility();

}  // namespace palaver
