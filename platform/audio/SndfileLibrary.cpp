#include "platform/audio/SndfileLibrary.h"

#include <dlfcn.h>

#include <array>

namespace palaver {

namespace {

template <typename Function>
bool find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  return function != nullptr;
}

}  // namespace

std::unique_ptr<const SndfileLibrary> SndfileLibrary::load(std::span<const char* const> files) {
  for (const auto* const file : files) {
    void* const handle = ::dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (!handle) continue;
    auto library = std::make_unique<SndfileLibrary>();
    if (find(handle, "sf_open", library->open) && find(handle, "sf_close", library->close) &&
        find(handle, "sf_readf_float", library->readFloat) && find(handle, "sf_error", library->error) &&
        find(handle, "sf_strerror", library->errorText))
      return library;
    ::dlclose(handle);
  }
  return nullptr;
}

const SndfileLibrary* SndfileLibrary::installed() {
  // Linux; Homebrew on Apple silicon and on Intel, whose folders dlopen() does not search.
  static constexpr std::array files{"libsndfile.so.1", "/opt/homebrew/lib/libsndfile.1.dylib",
                                    "/usr/local/lib/libsndfile.1.dylib"};
  static const auto library = load(files);
  return library.get();
}

}  // namespace palaver
