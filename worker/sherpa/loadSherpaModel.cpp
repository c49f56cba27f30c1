#include "worker/sherpa/loadSherpaModel.h"

#include "platform/linux/models/SherpaModel.h"
#include "worker/sherpa/OfflineModel.h"
#include "worker/sherpa/SherpaLibrary.h"
#include "worker/sherpa/StreamingModel.h"

namespace palaver {

const bool hasSherpa = true;

std::vector<std::filesystem::path> usualSherpaLibraryFolders() {
  return SherpaLibrary::usualFolders();
}

std::unique_ptr<LoadedModel> loadSherpaModel(const std::filesystem::path& folder, const std::string& locale,
                                             const std::vector<std::filesystem::path>& libraryFolders) {
  SherpaModel model;
  try {
    model = readSherpaModel(folder, locale);
  } catch (const UnusableModel& error) {
    throw sherpaError(sherpaModelUnusable, error.what());
  }
  auto library = SherpaLibrary::load(libraryFolders);
  if (isStreaming(model.kind)) return std::make_unique<StreamingModel>(std::move(library), model);
  return std::make_unique<OfflineModel>(std::move(library), model, locale);
}

}  // namespace palaver
