// Finds the installed speech model of a locale.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/models/SpeechModelFiles.h"

namespace palaver {

enum class SpeechEngine { sherpa, pocketSphinx };

// Returns the engine's name as the speech worker takes it: "sherpa" or "pocketsphinx".
std::string_view nameOf(SpeechEngine engine);

struct InstalledModel {
  SpeechEngine engine{};
  std::string locale;            // as in the folder's name: "ja-JP"
  std::filesystem::path folder;  // for PocketSphinx the folder of the locale, as Debian installs it
};

// Looks models up in these places, in this order. A folder, or a link to one, with a locale's name is its
// model.
//   1. userRoot:          $XDG_DATA_HOME/palaver-stt/models, by default ~/.local/share/palaver-stt/models
//   2. systemRoot:        /usr/share/palaver-stt/models
//   3. pocketSphinxRoot:  /usr/share/pocketsphinx/model
// Any thread.
class SpeechModels {
 public:
  struct Roots {
    std::filesystem::path userModels;  // empty when the user has no home
    std::filesystem::path systemModels = "/usr/share/palaver-stt/models";
    std::filesystem::path pocketSphinxModels = systemModelRoot;
  };

  // Returns the usual roots. `environment` returns a variable's value or null.
  static Roots usualRoots(const std::function<const char*(const char*)>& environment);

  explicit SpeechModels(Roots roots) : roots_(std::move(roots)) {}

  // Returns the model that serves the locale. Costs a few calls of stat; the files' content is checked when
  // they are loaded.
  std::optional<InstalledModel> find(std::string_view localeIdentifier) const;

  // Returns all models that find() can return, by locale.
  std::vector<InstalledModel> all() const;

  const Roots& roots() const { return roots_; }

 private:
  Roots roots_;
};

}  // namespace palaver
