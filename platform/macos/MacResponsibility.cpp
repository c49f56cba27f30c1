// Implements Responsibility for the running macOS and the main bundle.
#include <CoreFoundation/CoreFoundation.h>
#include <dlfcn.h>
#include <sys/param.h>

#include <array>

#include "platform/Responsibility.h"

namespace palaver {

namespace {

class MacResponsibility final : public Responsibility {
 public:
  // Looked up at run time: the function is private, and the helper must also start where it is missing.
  SetDisclaim findSetDisclaim() const override {
    return reinterpret_cast<SetDisclaim>(::dlsym(RTLD_DEFAULT, "responsibility_spawnattrs_setdisclaim"));
  }

  std::optional<std::string> executablePath() const override {
    const CFBundleRef bundle = CFBundleGetMainBundle();
    const CFURLRef url = bundle ? CFBundleCopyExecutableURL(bundle) : nullptr;
    if (!url) return std::nullopt;
    std::array<UInt8, MAXPATHLEN> path{};
    const bool fits = CFURLGetFileSystemRepresentation(url, true, path.data(), path.size());
    CFRelease(url);
    if (!fits) return std::nullopt;
    return reinterpret_cast<const char*>(path.data());
  }
};

}  // namespace

const Responsibility& machineResponsibility() {
  static const MacResponsibility responsibility;
  return responsibility;
}

}  // namespace palaver
