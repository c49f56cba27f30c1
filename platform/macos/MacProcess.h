// Implements a POSIX process that knows its macOS version.
#pragma once

#include "platform/posix/POSIXProcess.h"

namespace palaver {

class MacProcess final : public POSIXProcess {
 public:
  MacProcess(int argumentCount, char** arguments);

  bool isMacOSAtLeast(OperatingSystemVersion version) const override;

 private:
  const OperatingSystemVersion systemVersion_;
};

}  // namespace palaver
