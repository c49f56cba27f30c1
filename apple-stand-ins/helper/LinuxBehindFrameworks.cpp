// Backs the stand-ins of a macOS helper with the Linux recognizer, converters and sound files. The
// environment variable PALAVER_STT_SYSTEM sets the simulated system, such as "macOS 15".
#include <cstdio>
#include <cstdlib>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "apple-stand-ins/swift/AnalysisBehaviour.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/linux/LinuxSpeechRecognition.h"
#include "simulator/RecognizedSpeechAnalysis.h"
#include "simulator/scenario/PlatformState.h"

namespace palaver {

namespace {

constexpr const char* systemVariable = "PALAVER_STT_SYSTEM";

OperatingSystemVersion claimedSystem() {
  const char* const system = std::getenv(systemVariable);
  try {
    if (const auto version = readSystem(system ? system : "", systemVariable)) return *version;
    throw FileError(systemVariable, "must be \"macOS\" and a version");
  } catch (const FileError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    std::exit(2);
  }
}

struct LinuxBehindFrameworks {
  LinuxSpeechRecognition recognition;
  // Status, health and the research mode request Japanese, which has no model here.
  RecognizedSpeechAnalysis analysis{recognition, {{"ja-JP", "en-US"}}};
  SpeexAudioConverters converters;
  SndfileAudioFiles files;
  FrameworkBehaviour frameworks{recognition, converters, files, claimedSystem()};
  AnalysisBehaviour swiftFrameworks{analysis};
};

// Created before main() without its involvement. Never destroyed, because threads use it until the process
// ends.
const LinuxBehindFrameworks& behind = *new LinuxBehindFrameworks;

}  // namespace

}  // namespace palaver
