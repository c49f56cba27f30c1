// Adds, lists and removes the speech models of a user.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/models/SherpaModel.h"
#include "platform/linux/models/SpeechModels.h"

namespace palaver::cli {

// Errors are std::runtime_error with a sentence for the user.
class ModelStore {
 public:
  enum class Placement { copy, link };

  // What one line of a list states.
  struct Entry {
    InstalledModel model;
    std::string description;  // its kind, or why it cannot work
    bool isUsable = false;
    std::uintmax_t size = 0;  // bytes of its files
  };

  explicit ModelStore(SpeechModels::Roots roots) : models_(std::move(roots)) {}

  // Returns the models in the order of their locales, each one checked.
  std::vector<Entry> list() const;

  // Returns the model of a locale. Throws when there is none.
  Entry entryOf(std::string_view locale) const;

  // Checks the folder and puts it to the user's models. A copy holds the files that the model needs, with
  // licence and read-me files, and appears under its name only when it is whole. A link points to the folder,
  // which must stay where it is. Throws without a change when the folder cannot work or when the user has a
  // model for the locale.
  Entry add(const std::filesystem::path& folder, std::string_view locale, Placement placement) const;

  // Removes the user's model of a locale: the copy, or the link but not its target. Throws when the user has
  // none.
  void remove(std::string_view locale) const;

 private:
  std::filesystem::path userFolder(const std::string& locale) const;

  SpeechModels models_;
};

}  // namespace palaver::cli
