// Loads the C library of sherpa-onnx at run time and holds its functions.
#pragma once

#include <sherpa-onnx/c-api/c-api.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "worker/sherpa/SherpaError.h"

namespace palaver {

// Some of the functions throw C++ exceptions, so the program must use the shared C++ library; some end the
// process. Thread-safe, as far as the library is: one thread per recognizer.
class SherpaLibrary {
 public:
  // The name of the file, without a folder.
  static constexpr const char* fileName = "libsherpa-onnx-c-api.so";

  // Folders in which the library is searched: beside the program, in ../lib/palaver-stt of an installation,
  // and for development builds where the build found its header.
  static std::vector<std::filesystem::path> usualFolders();

  // Loads the library from the first folder that has it. Throws PlatformError when there is none or when its
  // version is not that of the header: the structures that both sides pass grow between versions.
  static std::shared_ptr<const SherpaLibrary> load(const std::vector<std::filesystem::path>& folders);

#define PALAVER_SHERPA_FUNCTIONS(FUNCTION) \
  FUNCTION(GetVersionStr)                  \
  FUNCTION(CreateOfflineRecognizer)        \
  FUNCTION(DestroyOfflineRecognizer)       \
  FUNCTION(CreateOfflineStream)            \
  FUNCTION(DestroyOfflineStream)           \
  FUNCTION(AcceptWaveformOffline)          \
  FUNCTION(DecodeOfflineStream)            \
  FUNCTION(GetOfflineStreamResult)         \
  FUNCTION(DestroyOfflineRecognizerResult) \
  FUNCTION(CreateOnlineRecognizer)         \
  FUNCTION(DestroyOnlineRecognizer)        \
  FUNCTION(CreateOnlineStream)             \
  FUNCTION(CreateOnlineStreamWithHotwords) \
  FUNCTION(DestroyOnlineStream)            \
  FUNCTION(OnlineStreamSetOption)          \
  FUNCTION(OnlineStreamAcceptWaveform)     \
  FUNCTION(IsOnlineStreamReady)            \
  FUNCTION(DecodeOnlineStream)             \
  FUNCTION(GetOnlineStreamResult)          \
  FUNCTION(DestroyOnlineRecognizerResult)  \
  FUNCTION(OnlineStreamInputFinished)

// SherpaOnnxGetVersionStr is the member GetVersionStr, and so on.
// NOLINTNEXTLINE(bugprone-macro-parentheses): a name that is declared takes none
#define PALAVER_SHERPA_MEMBER(name) decltype(&SherpaOnnx##name) name = nullptr;
  PALAVER_SHERPA_FUNCTIONS(PALAVER_SHERPA_MEMBER)
#undef PALAVER_SHERPA_MEMBER
  // Null in a library that lacks it.
  decltype(&SherpaOnnxDecodeMultipleOnlineStreams) DecodeMultipleOnlineStreams = nullptr;

 private:
  SherpaLibrary() = default;
};

}  // namespace palaver
