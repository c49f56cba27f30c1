// Chooses the engine of a speech worker.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include "platform/SpeechRecognition.h"

namespace palaver {

// Returns the engine of that name ("pocketsphinx" or "sherpa") for the model in the folder. Loads nothing:
// its first task does. Throws PlatformError when there is no such engine or when it cannot use the folder.
std::unique_ptr<SpeechRecognition> makeEngine(std::string_view name, const std::filesystem::path& modelFolder,
                                              std::string_view locale);

}  // namespace palaver
