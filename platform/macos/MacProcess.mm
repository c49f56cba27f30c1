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
  // After 15 came 26. A system of 26 or later calls itself 16 and so on to programs of older SDKs and under
  // SYSTEM_VERSION_COMPAT=1.
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
