// Errors of the engine sherpa-onnx.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "platform/PlatformError.h"

namespace palaver {

// Codes of the domain "SherpaONNX".
enum SherpaErrorCode : long {
  sherpaLibraryMissing = 1,
  sherpaModelUnusable = 2,
  sherpaUnsupportedAudio = 3,
  sherpaEngineFailed = 4,
  sherpaNoSpeech = 1110,  // as the contract of ResultHandler wants
};

inline PlatformError sherpaError(SherpaErrorCode code, std::string text) {
  return {"SherpaONNX", code, std::move(text)};
}

inline PlatformError refusedModel(const std::filesystem::path& folder) {
  return sherpaError(sherpaModelUnusable, "The speech engine refuses the model in " + folder.string());
}

}  // namespace palaver
