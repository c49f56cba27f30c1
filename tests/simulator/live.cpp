#include "tests/simulator/live.h"

#include <unistd.h>

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

struct LivePlatform {
  LivePlatform(const MachineState& state, std::vector<char*> arguments)
      : process(std::move(arguments), state.macOS),
        speechRecognition(timeline, state.platform.recognition),
        speechAnalysis(timeline, state.platform.analysis) {
    audioBuffers.setFault(state.platform.audioBuffers);
  }

  WallTimeline timeline;
  SystemClock clock;
  LiveProcess process;
  ThreadedMainQueue mainQueue;
  DescriptorInput standardInput{STDIN_FILENO};
  DescriptorOutput standardOutput{STDOUT_FILENO};
  DescriptorOutput standardError{STDERR_FILENO};
  SimulatedAudioBuffers audioBuffers;
  SimulatedSpeechRecognition speechRecognition;
  SimulatedSpeechAnalysis speechAnalysis;
  SpeexAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  ThreadPoolTasks tasks;
  Platform platform{clock,          process,         mainQueue,    standardInput,
                    standardOutput, standardError,   audioBuffers, speechRecognition,
                    speechAnalysis, audioConverters, audioFiles,   tasks};
};

}  // namespace

void runLive(const std::filesystem::path& stateFile, std::span<char*> arguments) {
  const auto state = readMachineState(readJSONFile(stateFile), stateFile.filename().string());
  if (state.platform.clockShift != 0 || !state.platform.slicesDeliverInsideJobs)
    throw FileError(stateFile.filename().string(),
                    "clockShift and slicesDeliverInsideJobs are of virtual time only");
  char program[] = "PalaverSTTHelper";
  std::vector<char*> all(arguments.begin(), arguments.end());
  all.insert(all.begin(), program);
  prepareStandardStreams();
  // Threads use it until the process ends, which takes nothing down.
  auto& live = *new LivePlatform(state, std::move(all));
  runHelper(live.platform);
}

}  // namespace palaver
