#include "cli/findHelper.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <vector>

namespace palaver::cli {

namespace {

constexpr const char* helperName = "PalaverSTTHelper";

std::vector<std::filesystem::path> candidates() {
  std::vector<std::filesystem::path> found;
  std::error_code error;
  // Systems without /proc search PATH, on which palaver-stt itself was found.
  if (const auto program = std::filesystem::read_symlink("/proc/self/exe", error); !error)
    found.push_back(program.parent_path() / helperName);
#ifdef PALAVER_HELPER
  found.emplace_back(PALAVER_HELPER);
#endif
  if (const char* const folders = std::getenv("PATH")) {
    std::istringstream list(folders);
    for (std::string folder; std::getline(list, folder, ':');)
      if (folder.starts_with('/')) found.push_back(std::filesystem::path(folder) / helperName);
  }
  return found;
}

}  // namespace

std::string findHelper() {
  const auto paths = candidates();
  std::error_code ignored;
  for (const auto& path : paths)
    if (std::filesystem::is_regular_file(path, ignored)) return path;
  return paths.empty() ? std::string(helperName) : paths.front().string();
}

}  // namespace palaver::cli
