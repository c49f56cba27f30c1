// Names a model that a speech worker can load.
#pragma once

#include <compare>
#include <filesystem>
#include <string>

namespace palaver {

// Each worker serves one of these.
struct WorkerModel {
  std::string engine;  // "pocketsphinx" or "sherpa"
  std::filesystem::path folder;
  std::string locale;  // such as "en-US"

  friend auto operator<=>(const WorkerModel&, const WorkerModel&) = default;
};

}  // namespace palaver
