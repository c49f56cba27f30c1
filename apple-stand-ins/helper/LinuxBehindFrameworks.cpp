// Backs the stand-ins of a macOS helper with the Linux recognizer, converters and sound files. The
// environment variable PALAVER_STT_SYSTEM sets the simulated system, such as "macOS 15". PALAVER_STT_STATE,
// if set, is one of the states of StatedServices.h.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "apple-stand-ins/helper/StatedServices.h"
#include "apple-stand-ins/swift/AnalysisBehaviour.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "simulator/RecognizedSpeechAnalysis.h"
#include "simulator/scenario/PlatformState.h"
#include "worker/pocketsphinx/PocketSphinxRecognition.h"

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

// Returns an empty text for the services as they are.
std::string claimedState() {
  const char* const state = std::getenv("PALAVER_STT_STATE");
  if (!state || isMachineState(state)) return state ? state : "";
  std::fprintf(stderr, "PALAVER_STT_STATE: there is no state \"%s\"\n", state);
  std::exit(2);
}

struct LinuxBehindFrameworks {
  PocketSphinxRecognition recognition;
  // Status, health and the research mode request Japanese, which has no model here.
  RecognizedSpeechAnalysis analysis{recognition, {{"ja-JP", "en-US"}}};
  const std::string state = claimedState();
  const std::unique_ptr<SpeechRecognition> statedRecognition = recognitionInState(recognition, state);
  const std::unique_ptr<SpeechAnalysis> statedAnalysis = analysisInState(analysis, state);
  SpeexAudioConverters converters;
  SndfileAudioFiles files;
  FrameworkBehaviour frameworks{
      state.empty() ? static_cast<SpeechRecognition&>(recognition) : *statedRecognition, converters, files,
      claimedSystem()};
  AnalysisBehaviour swiftFrameworks{state.empty() ? static_cast<SpeechAnalysis&>(analysis) : *statedAnalysis};
};

// Created before main() without its involvement. Never destroyed, because threads use it until the process
// ends.
const LinuxBehindFrameworks& behind = *new LinuxBehindFrameworks;

}  // namespace

}  // namespace palaver
