#include "cli/ModelStore.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/linux/models/LocaleIdentifier.h"

namespace palaver::cli {

namespace {

namespace fs = std::filesystem;

// Every name of a file in the models directory comes from here, so none leads out of it.
std::string localeNamed(std::string_view identifier) {
  auto locale = canonicalLocale(identifier);
  if (!locale)
    throw std::runtime_error("'" + std::string(identifier) + "' is not a locale; write it like ja-JP");
  return std::move(*locale);
}

std::vector<fs::path> filesOf(const SherpaModel& model) {
  std::vector<fs::path> files;
  for (const auto& file : {model.model, model.encoder, model.decoder, model.joiner, model.preprocessor,
                           model.cachedDecoder, model.tokens, model.bpeVocabulary})
    if (!file.empty()) files.push_back(file);
  return files;
}

bool isAboutModel(const fs::path& file) {
  const auto name = file.filename().string();
  return name.starts_with("LICENSE") || name.starts_with("README");
}

std::uintmax_t sizeOf(const std::vector<fs::path>& files) {
  std::uintmax_t size = 0;
  for (const auto& file : files) {
    std::error_code error;
    const auto bytes = fs::file_size(file, error);
    if (!error) size += bytes;
  }
  return size;
}

std::uintmax_t sizeOfFolder(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code error;
  fs::recursive_directory_iterator entry(folder, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error))
    files.push_back(entry->path());
  return sizeOf(files);
}

void copyModel(const SherpaModel& model, const fs::path& from, const fs::path& to) {
  auto files = filesOf(model);
  for (const auto& entry : fs::directory_iterator(from))
    if (entry.is_regular_file() && isAboutModel(entry.path())) files.push_back(entry.path());
  for (const auto& file : files) {
    fs::copy_file(file, to / file.filename());
    // A file of a read-only source could not be replaced.
    fs::permissions(to / file.filename(), fs::perms::owner_write, fs::perm_options::add);
  }
}

ModelStore::Entry describe(const InstalledModel& model) {
  ModelStore::Entry entry{model, "PocketSphinx", true, 0};
  if (model.engine == SpeechEngine::pocketSphinx) {
    entry.size = sizeOfFolder(model.folder);
    return entry;
  }
  try {
    const auto read = readSherpaModel(model.folder, model.locale);
    entry.description = palaver::describe(read.kind);
    entry.size = sizeOf(filesOf(read));
  } catch (const UnusableModel& error) {
    entry.description = error.what();
    entry.isUsable = false;
  }
  return entry;
}

}  // namespace

fs::path ModelStore::userFolder(const std::string& locale) const {
  if (models_.roots().userModels.empty())
    throw std::runtime_error("there is no folder for models: neither XDG_DATA_HOME nor HOME is set");
  return models_.roots().userModels / locale;
}

std::vector<ModelStore::Entry> ModelStore::list() const {
  std::vector<Entry> entries;
  for (const auto& model : models_.all()) entries.push_back(describe(model));
  return entries;
}

ModelStore::Entry ModelStore::entryOf(std::string_view identifier) const {
  const auto locale = localeNamed(identifier);
  const auto model = models_.find(locale);
  if (!model)
    throw std::runtime_error("there is no model for " + locale + "; palaver-stt models add adds one");
  return describe(*model);
}

ModelStore::Entry ModelStore::add(const fs::path& folder, std::string_view identifier,
                                  Placement placement) const {
  const auto locale = localeNamed(identifier);
  const auto target = userFolder(locale);
  if (fs::symlink_status(target).type() != fs::file_type::not_found)
    throw std::runtime_error(locale + " has a model already; palaver-stt models remove " + locale +
                             " removes it");
  const auto model = readSherpaModel(folder, locale);
  fs::create_directories(target.parent_path());
  if (placement == Placement::link) {
    fs::create_directory_symlink(fs::canonical(folder), target);
  } else {
    const auto part = target.parent_path() / ("." + locale + ".part");
    fs::remove_all(part);
    fs::create_directory(part);
    try {
      copyModel(model, folder, part);
      fs::rename(part, target);
    } catch (...) {
      std::error_code ignored;
      fs::remove_all(part, ignored);
      throw;
    }
  }
  return entryOf(locale);
}

void ModelStore::remove(std::string_view identifier) const {
  const auto locale = localeNamed(identifier);
  const auto target = userFolder(locale);
  const auto type = fs::symlink_status(target).type();
  if (type == fs::file_type::not_found) {
    const auto model = models_.find(locale);
    throw std::runtime_error(model ? "the model for " + locale + " is not yours: it is installed in " +
                                         model->folder.string()
                                   : "there is no model for " + locale);
  }
  // Neither call follows a link.
  if (type == fs::file_type::directory) {
    fs::remove_all(target);
  } else {
    fs::remove(target);
  }
}

}  // namespace palaver::cli
