#include "platform/macos/MacProcess.h"

#import <Foundation/Foundation.h>

#include <tuple>

#include "platform/macos/AutoreleasePool.h"

namespace palaver {

namespace {

OperatingSystemVersion systemVersion() {
  const AutoreleasePool pool;
  const NSOperatingSystemVersion version = NSProcessInfo.processInfo.operatingSystemVersion;
  auto major = static_cast<int>(version.majorVersion);
  // macOS 26 followed macOS 15. To programs built with older SDKs and under SYSTEM_VERSION_COMPAT=1, a system
  // of 26 or later reports itself as 16 and so on.
  constexpr int lastOfOldNumbers = 15, skipped = 10;
  if (major > lastOfOldNumbers && major <= lastOfOldNumbers + skipped) major += skipped;
  return {major, static_cast<int>(version.minorVersion), static_cast<int>(version.patchVersion)};
}

}  // namespace

MacProcess::MacProcess(int argumentCount, char** arguments)
    : POSIXProcess(argumentCount, arguments), systemVersion_(systemVersion()) {}

bool MacProcess::isMacOSAtLeast(OperatingSystemVersion version) const {
  const auto parts = [](const OperatingSystemVersion& of) {
    return std::tuple(of.major, of.minor, of.patch);
  };
  return parts(systemVersion_) >= parts(version);
}

}  // namespace palaver
