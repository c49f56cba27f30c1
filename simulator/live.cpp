#include "simulator/live.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "app/Helper.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "simulator/ThreadedTimeline.h"
#include "simulator/scenario/ClaimedProcess.h"
#include "simulator/scenario/PlatformState.h"
#ifdef PALAVER_RECOGNIZER
#include "simulator/RecognizedSpeechAnalysis.h"
#include "worker/pocketsphinx/PocketSphinxRecognition.h"
#endif

namespace palaver {

namespace {

// Holds the platform without its speech services.
struct LivePlatform {
  LivePlatform(std::optional<OperatingSystemVersion> macOS, std::span<char*> arguments,
               SpeechRecognition& speechRecognition, SpeechAnalysis& speechAnalysis)
      : process(arguments, macOS),
        platform{.clock = clock,
                 .process = process,
                 .mainQueue = mainQueue,
                 .standardInput = standardInput,
                 .standardOutput = standardOutput,
                 .standardError = standardError,
                 .audioBuffers = audioBuffers,
                 .speechRecognition = speechRecognition,
                 .speechAnalysis = speechAnalysis,
                 .audioConverters = audioConverters,
                 .audioFiles = audioFiles,
                 .tasks = tasks} {}

  SystemClock clock;
  ClaimedProcess process;
  ThreadedMainQueue mainQueue;
  DescriptorInput standardInput{STDIN_FILENO};
  DescriptorOutput standardOutput{STDOUT_FILENO};
  DescriptorOutput standardError{STDERR_FILENO};
  SimulatedAudioBuffers audioBuffers;
  SpeexAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  ThreadPoolTasks tasks;
  Platform platform;
};

}  // namespace

void runLive(const std::filesystem::path& stateFile, std::span<char*> arguments) {
  const auto state = readMachineState(readJSONFile(stateFile), stateFile.filename().string());
  if (state.platform.clockShift != 0 || !state.platform.slicesDeliverInsideJobs)
    throw FileError(stateFile.filename().string(),
                    "clockShift and slicesDeliverInsideJobs are of virtual time only");
  prepareStandardStreams();
  // Threads use these objects until the process ends, so they are never destroyed.
  auto& timeline = *new ThreadedTimeline(1);
  auto& recognition = *new SimulatedSpeechRecognition(timeline, state.platform.recognition);
  auto& analysis = *new SimulatedSpeechAnalysis(timeline, state.platform.analysis);
  auto& live = *new LivePlatform(state.macOS, arguments, recognition, analysis);
  live.audioBuffers.setFault(state.platform.audioBuffers);
  runHelper(live.platform);
}

#ifdef PALAVER_RECOGNIZER
void runLiveAnalyzer(std::span<char*> arguments) {
  constexpr OperatingSystemVersion system{26, 0, 0};
  prepareStandardStreams();
  auto& recognition = *new PocketSphinxRecognition;
  // Status, health and the research mode request Japanese, which has no model here.
  auto& analysis = *new RecognizedSpeechAnalysis(recognition, {{"ja-JP", "en-US"}});
  auto& live = *new LivePlatform(system, arguments, recognition, analysis);
  runHelper(live.platform);
}
#else
void runLiveAnalyzer(std::span<char*> /*arguments*/) {
  std::fputs("This simulator was built without the recognizer of Linux\n", stderr);
  std::exit(2);
}
#endif

}  // namespace palaver
