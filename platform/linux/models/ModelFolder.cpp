#include "platform/linux/models/ModelFolder.h"

#include <algorithm>
#include <cstddef>
#include <system_error>
#include <utility>

#include "platform/linux/models/UnusableModel.h"

namespace palaver {

namespace {

using std::filesystem::path;

constexpr std::size_t maxFiles = 1000;

bool matches(const std::string& name, std::string_view stem,
             std::initializer_list<std::string_view> extensions) {
  const auto extension =
      std::ranges::find_if(extensions, [&](auto ending) { return name.ends_with(ending); });
  if (extension == extensions.end()) return false;
  const auto base = std::string_view(name).substr(0, name.size() - extension->size());
  for (auto at = base.find(stem); at != std::string_view::npos; at = base.find(stem, at + 1)) {
    const bool begins = at == 0 || base[at - 1] == '-';
    const auto rest = base.substr(at + stem.size());
    if (begins && (rest.empty() || rest.front() == '-' || rest.front() == '.')) return true;
  }
  return false;
}

std::string withoutInt8(std::string name) {
  if (const auto at = name.find(".int8"); at != std::string::npos) name.erase(at, 5);
  return name;
}

std::pair<bool, std::size_t> rank(const std::string& name) {
  return {name.find("int8") == std::string::npos, name.size()};
}

}  // namespace

ModelFolder::ModelFolder(path directory) : directory_(std::move(directory)) {
  std::error_code error;
  if (!std::filesystem::is_directory(directory_, error))
    throw UnusableModel("There is no folder " + directory_.string() + ".");
  std::filesystem::directory_iterator entry(directory_, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_regular_file(ignored)) names_.push_back(entry->path().filename().string());
    if (names_.size() > maxFiles)
      throw UnusableModel(directory_.string() + " holds more than 1000 files; a model has about ten.");
  }
  if (error)
    throw UnusableModel("The folder " + directory_.string() + " cannot be read: " + error.message() + ".");
  std::ranges::sort(names_);
}

std::optional<path> ModelFolder::find(std::string_view stem,
                                      std::initializer_list<std::string_view> extensions) const {
  const std::string* best = nullptr;
  for (const auto& name : names_) {
    if (!matches(name, stem, extensions)) continue;
    if (!best || rank(name) < rank(*best)) best = &name;
  }
  return best ? std::optional(directory_ / *best) : std::nullopt;
}

std::optional<path> ModelFolder::onlyModel() const {
  std::vector<std::string> models;
  for (const auto& name : names_)
    if (name.ends_with(".onnx")) models.push_back(name);
  if (models.size() == 2 && rank(models[1]) < rank(models[0])) std::swap(models[0], models[1]);
  if (models.size() == 1 ||
      (models.size() == 2 && rank(models[0]) < rank(models[1]) && withoutInt8(models[0]) == models[1]))
    return directory_ / models[0];
  return std::nullopt;
}

bool ModelFolder::hasModels() const {
  return std::ranges::any_of(
      names_, [](const auto& name) { return name.ends_with(".onnx") || name.ends_with(".ort"); });
}

}  // namespace palaver
