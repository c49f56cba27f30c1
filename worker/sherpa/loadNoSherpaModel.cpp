#include "worker/sherpa/SherpaError.h"
#include "worker/sherpa/loadSherpaModel.h"

namespace palaver {

const bool hasSherpa = false;

std::vector<std::filesystem::path> usualSherpaLibraryFolders() {
  return {};
}

std::unique_ptr<LoadedModel> loadSherpaModel(const std::filesystem::path& /*folder*/,
                                             const std::string& /*locale*/,
                                             const std::vector<std::filesystem::path>& /*libraryFolders*/) {
  throw sherpaError(sherpaLibraryMissing, "This program was built without the speech engine sherpa-onnx");
}

}  // namespace palaver
