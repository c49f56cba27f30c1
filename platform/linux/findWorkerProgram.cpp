#include <system_error>

#include "platform/linux/WorkerSettings.h"

namespace palaver {

namespace {

constexpr const char* programName = "PalaverSpeechWorker";

}  // namespace

std::filesystem::path findWorkerProgram() {
  std::error_code ignored;
  const auto directory = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
  const auto beside = directory / programName;
  const auto installed = directory.parent_path() / "libexec" / "palaver-stt" / programName;
  return !std::filesystem::exists(beside, ignored) && std::filesystem::exists(installed, ignored) ? installed
                                                                                                  : beside;
}

}  // namespace palaver
