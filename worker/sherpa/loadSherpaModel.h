// Loads a speech model with sherpa-onnx. There are two definitions: a build without the library's header has
// one that only fails.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "worker/sherpa/LoadedModel.h"

namespace palaver {

// Whether this build has the engine.
extern const bool hasSherpa;

// Returns the folders in which the library is searched, in this order: that of the program,
// ../lib/palaver-stt and
// ../../lib/palaver-stt from there, and in development builds the one beside the header that was compiled in.
std::vector<std::filesystem::path> usualSherpaLibraryFolders();

// Checks the folder, loads the library and the model. Throws PlatformError with a sentence for people.
std::unique_ptr<LoadedModel> loadSherpaModel(const std::filesystem::path& folder, const std::string& locale,
                                             const std::vector<std::filesystem::path>& libraryFolders);

}  // namespace palaver
