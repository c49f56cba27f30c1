#include "tests/simulator/live.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "core/Helper.h"
#include "platform/linux/SndfileAudioFile.h"
#include "platform/linux/SpeexAudioConverter.h"
#include "platform/posix/POSIXProcess.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "tests/simulator/PlatformState.h"
#include "tests/simulator/WallTimeline.h"
#ifdef PALAVER_RECOGNIZER
#include "platform/linux/LinuxSpeechRecognition.h"
#include "tests/simulator/RecognizedSpeechAnalysis.h"
#endif

namespace palaver {

namespace {

// This process, on a system that it only claims to be on.
class LiveProcess final : public Process {
 public:
  LiveProcess(std::vector<char*> arguments, std::optional<OperatingSystemVersion> macOS)
      : process_(static_cast<int>(arguments.size()), arguments.data()), macOS_(macOS) {}

  const std::vector<std::string>& arguments() const override { return process_.arguments(); }
  std::optional<std::string> environmentVariable(std::string_view name) const override {
    return process_.environmentVariable(name);
  }
  bool isMacOSAtLeast(OperatingSystemVersion version) const override {
    return macOS_ && isAtLeast(*macOS_, version);
  }

 private:
  void terminate(int status) override { process_.exit(status); }

  POSIXProcess process_;
  const std::optional<OperatingSystemVersion> macOS_;
};

// The machine but for its speech services.
struct LivePlatform {
  LivePlatform(std::optional<OperatingSystemVersion> macOS, std::span<char*> arguments,
               SpeechRecognition& speechRecognition, SpeechAnalysis& speechAnalysis)
      : process(withProgram(arguments), macOS), platform{clock,           process,           mainQueue,
                                                         standardInput,   standardOutput,    standardError,
                                                         audioBuffers,    speechRecognition, speechAnalysis,
                                                         audioConverters, audioFiles,        tasks} {}

  SystemClock clock;
  LiveProcess process;
  ThreadedMainQueue mainQueue;
  DescriptorInput standardInput{STDIN_FILENO};
  DescriptorOutput standardOutput{STDOUT_FILENO};
  DescriptorOutput standardError{STDERR_FILENO};
  SimulatedAudioBuffers audioBuffers;
  SpeexAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  ThreadPoolTasks tasks;
  Platform platform;

 private:
  static std::vector<char*> withProgram(std::span<char*> arguments) {
    static char program[] = "PalaverSTTHelper";
    std::vector<char*> all(arguments.begin(), arguments.end());
    all.insert(all.begin(), program);
    return all;
  }
};

}  // namespace

void runLive(const std::filesystem::path& stateFile, std::span<char*> arguments) {
  const auto state = readMachineState(readJSONFile(stateFile), stateFile.filename().string());
  if (state.platform.clockShift != 0 || !state.platform.slicesDeliverInsideJobs)
    throw FileError(stateFile.filename().string(),
                    "clockShift and slicesDeliverInsideJobs are of virtual time only");
  prepareStandardStreams();
  // Threads use all of this until the process ends, which takes nothing down.
  auto& timeline = *new WallTimeline;
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
  auto& recognition = *new LinuxSpeechRecognition;
  // Status, health and the research mode ask for Japanese, for which there is no model here.
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
