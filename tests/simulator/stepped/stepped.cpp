#include "tests/simulator/stepped/stepped.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "core/Helper.h"
#include "platform/linux/SndfileAudioFile.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "platform/simulated/SimulatedAudioConverters.h"
#include "tests/simulator/ClaimedProcess.h"
#include "tests/simulator/stepped/ControlServer.h"
#include "tests/simulator/stepped/SteppedMainQueue.h"
#include "tests/simulator/stepped/WatchedProcess.h"

namespace palaver {

namespace {

// The pieces of a POSIX platform, with stepped time and simulated services.
class SteppedMachine final : public ControlledMachine {
 public:
  SteppedMachine(const ControlServer::Setup& setup, std::span<char*> arguments, ControlServer& control)
      : clock_(timeline_, setup.startsAt),
        claimedProcess_(arguments, setup.machine.macOS),
        process_(claimedProcess_, [&control](int status) { control.tellEnd(status); }),
        speechRecognition_(timeline_, setup.machine.platform.recognition),
        speechAnalysis_(timeline_, setup.machine.platform.analysis),
        platform_{clock_,          process_,         mainQueue_,    standardInput_,
                  standardOutput_, standardError_,   audioBuffers_, speechRecognition_,
                  speechAnalysis_, audioConverters_, audioFiles_,   tasks_} {}

  Platform& platform() { return platform_; }
  SteppedTimeline& timeline() { return timeline_; }

  SimulatedSpeechRecognition& speechRecognition() override { return speechRecognition_; }
  SimulatedSpeechAnalysis& speechAnalysis() override { return speechAnalysis_; }
  void setFault(SimulatedAudioBuffers::Fault fault) override { audioBuffers_.setFault(fault); }
  void setFault(SimulatedAudioConverters::Fault fault) override { audioConverters_.setFault(fault); }
  void setClockShift(double milliseconds) override { clock_.setShift(milliseconds); }
  void setSlicesDeliverInsideJobs(bool deliver) override { mainQueue_.setSlicesDeliverInsideJobs(deliver); }

 private:
  SteppedTimeline timeline_;
  SteppedClock clock_;
  ClaimedProcess claimedProcess_;
  WatchedProcess process_;
  ThreadedMainQueue threadedMainQueue_;
  SteppedMainQueue mainQueue_{threadedMainQueue_, timeline_};
  DescriptorInput standardInput_{STDIN_FILENO};
  DescriptorOutput standardOutput_{STDOUT_FILENO};
  DescriptorOutput standardError_{STDERR_FILENO};
  SimulatedAudioBuffers audioBuffers_;
  SimulatedSpeechRecognition speechRecognition_;
  SimulatedSpeechAnalysis speechAnalysis_;
  SimulatedAudioConverters audioConverters_;
  SndfileAudioFiles audioFiles_;
  // Of one thread, so that two sources do the same things in the same order in every run.
  ThreadPoolTasks tasks_{1};
  Platform platform_;
};

ControlServer& makeControlServer() {
  try {
    return *new ControlServer;  // its thread uses it until the process ends
  } catch (const std::runtime_error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    std::exit(2);
  }
}

}  // namespace

void runStepped(std::span<char*> arguments) {
  auto& control = makeControlServer();
  const auto setup = control.receiveSetup();
  prepareStandardStreams();
  auto& machine = *new SteppedMachine(setup, arguments, control);
  control.serve(machine, setup.machine.platform, machine.timeline());
  runHelper(machine.platform());
}

}  // namespace palaver
