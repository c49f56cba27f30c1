#include "worker/sherpa/SherpaLibrary.h"

#include <dlfcn.h>

#include <system_error>
#include <utility>

namespace palaver {

std::vector<std::filesystem::path> SherpaLibrary::usualFolders() {
  std::vector<std::filesystem::path> folders;
  std::error_code error;
  if (const auto program = std::filesystem::read_symlink("/proc/self/exe", error); !error) {
    folders.push_back(program.parent_path());
    folders.push_back(program.parent_path() / "../lib/palaver-stt");
    folders.push_back(program.parent_path() / "../../lib/palaver-stt");  // from libexec/palaver-stt
  }
#ifdef PALAVER_SHERPA_BUILD_FOLDER
  folders.emplace_back(PALAVER_SHERPA_BUILD_FOLDER);
#endif
  return folders;
}

std::shared_ptr<const SherpaLibrary> SherpaLibrary::load(const std::vector<std::filesystem::path>& folders) {
  void* handle = nullptr;
  std::string reason = "it is not installed";
  for (const auto& folder : folders) {
    std::error_code ignored;
    const auto file = folder / fileName;
    if (!std::filesystem::exists(file, ignored)) continue;
    // Never closed: the ONNX Runtime in it starts threads and registers exit handlers.
    handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle) break;
    const char* const text = ::dlerror();
    reason = text ? text : "it cannot be loaded";
  }
  if (!handle)
    throw sherpaError(sherpaLibraryMissing,
                      std::string("The speech engine's library ") + fileName + " cannot be used: " + reason);

  std::shared_ptr<SherpaLibrary> library(new SherpaLibrary());
#define PALAVER_SHERPA_FIND(name)                                                                 \
  library->name = reinterpret_cast<decltype(library->name)>(::dlsym(handle, "SherpaOnnx" #name)); \
  if (!library->name)                                                                             \
    throw sherpaError(sherpaLibraryMissing, std::string(fileName) + " lacks the function SherpaOnnx" #name);
  PALAVER_SHERPA_FUNCTIONS(PALAVER_SHERPA_FIND)
#undef PALAVER_SHERPA_FIND
  library->DecodeMultipleOnlineStreams = reinterpret_cast<decltype(library->DecodeMultipleOnlineStreams)>(
      ::dlsym(handle, "SherpaOnnxDecodeMultipleOnlineStreams"));
  const std::string version = library->GetVersionStr();
  if (version != PALAVER_SHERPA_VERSION)
    throw sherpaError(sherpaLibraryMissing, std::string(fileName) + " has the version " + version +
                                                ", and this program was built for " PALAVER_SHERPA_VERSION);
  return library;
}

}  // namespace palaver
