#include "simulator/live.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "app/Helper.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/posix/AbsentServices.h"
#include "platform/posix/MemoryAudioBuffers.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "simulator/ThreadedTimeline.h"
#include "simulator/scenario/ClaimedProcess.h"
#include "simulator/scenario/PlatformState.h"
#ifdef PALAVER_WORKER
#include "platform/linux/LinuxSpeechRecognition.h"
#include "simulator/SharedClock.h"
#endif
#ifdef PALAVER_RECOGNIZER
#include "simulator/RecognizedSpeechAnalysis.h"
#include "worker/pocketsphinx/PocketSphinxRecognition.h"
#endif

namespace palaver {

namespace {

// Threads use these objects until the process ends, so they are never destroyed.
struct LivePlatform {
  LivePlatform(std::optional<OperatingSystemVersion> macOS, std::span<char*> arguments)
      : process(arguments, macOS) {}

  [[noreturn]] void run(Clock& clock, AudioBuffers& audioBuffers, SpeechRecognition& speechRecognition,
                        SpeechAnalysis& speechAnalysis) {
    runHelper(*new Platform{.clock = clock,
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
                            .tasks = tasks});
  }

  ClaimedProcess process;
  ThreadedMainQueue mainQueue;
  DescriptorInput standardInput{STDIN_FILENO};
  DescriptorOutput standardOutput{STDOUT_FILENO};
  DescriptorOutput standardError{STDERR_FILENO};
  SpeexAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  ThreadPoolTasks tasks;
};

}  // namespace

void runLive(const std::filesystem::path& stateFile, std::span<char*> arguments) {
  const auto state = readMachineState(readJSONFile(stateFile), stateFile.filename().string());
  if (state.platform.clockShift != 0 || !state.platform.slicesDeliverInsideJobs)
    throw FileError(stateFile.filename().string(),
                    "clockShift and slicesDeliverInsideJobs are of virtual time only");
  prepareStandardStreams();
  auto& timeline = *new ThreadedTimeline(1);
  auto& recognition = *new SimulatedSpeechRecognition(timeline, state.platform.recognition);
  auto& analysis = *new SimulatedSpeechAnalysis(timeline, state.platform.analysis);
  auto& audioBuffers = *new SimulatedAudioBuffers;
  audioBuffers.setFault(state.platform.audioBuffers);
  (new LivePlatform(state.macOS, arguments))->run(*new SystemClock, audioBuffers, recognition, analysis);
}

#ifdef PALAVER_RECOGNIZER
void runLiveAnalyzer(std::span<char*> arguments) {
  constexpr OperatingSystemVersion system{26, 0, 0};
  prepareStandardStreams();
  auto& recognition = *new PocketSphinxRecognition;
  // Status, health and the research mode request Japanese, which has no model here.
  auto& analysis = *new RecognizedSpeechAnalysis(recognition, {{"ja-JP", "en-US"}});
  (new LivePlatform(system, arguments))
      ->run(*new SystemClock, *new SimulatedAudioBuffers, recognition, analysis);
}
#else
void runLiveAnalyzer(std::span<char*> /*arguments*/) {
  std::fputs("This simulator was built without the recognizer of Linux\n", stderr);
  std::exit(2);
}
#endif

#ifdef PALAVER_WORKER
void runLiveLinux(const std::filesystem::path& clockFile, const std::filesystem::path& worker,
                  std::span<char*> arguments) {
  auto& clock = *new SharedClock(clockFile);
  prepareStandardStreams();
  auto& live = *new LivePlatform(std::nullopt, arguments);
  auto& recognition =
      *new LinuxSpeechRecognition(live.mainQueue, SpeechModels(SpeechModels::usualRoots(&std::getenv)),
                                  {.program = [worker] { return worker; }});
  live.run(clock, *new MemoryAudioBuffers, recognition, *new AbsentSpeechAnalysis);
}
#else
void runLiveLinux(const std::filesystem::path&, const std::filesystem::path&, std::span<char*>) {
  std::fputs("This simulator was not built for Linux\n", stderr);
  std::exit(2);
}
#endif

}  // namespace palaver
