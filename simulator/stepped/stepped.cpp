#include "simulator/stepped/stepped.h"

#include <unistd.h>

#include "app/Helper.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"
#include "simulator/scenario/ClaimedProcess.h"
#include "simulator/stepped/ControlServer.h"
#include "simulator/stepped/SteppedMachine.h"
#include "simulator/stepped/SteppedMainQueue.h"
#include "simulator/stepped/WatchedProcess.h"

namespace palaver {

namespace {

// Builds a POSIX platform in stepped time.
class POSIXMachine final : public SteppedMachine {
 public:
  POSIXMachine(const ControlServer::Setup& setup, std::span<char*> arguments, ControlServer& control)
      : SteppedMachine(setup.machine.platform, setup.startsAt),
        claimedProcess_(arguments, setup.machine.macOS),
        process_(claimedProcess_, [&control](int status) { control.tellEnd(status); }) {}

  Platform& platform() { return platform_; }

  void setSlicesDeliverInsideJobs(bool deliver) override { mainQueue_.setSlicesDeliverInsideJobs(deliver); }

 private:
  SimulatedAudioBuffers& audioBuffers() override { return audioBuffers_; }

  ClaimedProcess claimedProcess_;
  WatchedProcess process_;
  ThreadedMainQueue threadedMainQueue_;
  SteppedMainQueue mainQueue_{threadedMainQueue_, timeline};
  DescriptorInput standardInput_{STDIN_FILENO};
  DescriptorOutput standardOutput_{STDOUT_FILENO};
  DescriptorOutput standardError_{STDERR_FILENO};
  // One thread, so that two sources act in the same order in every run.
  ThreadPoolTasks tasks_{1};
  SimulatedAudioBuffers audioBuffers_;
  Platform platform_{clock,         process_,    mainQueue_, standardInput_,  standardOutput_, standardError_,
                     audioBuffers_, recognition, analysis,   audioConverters, audioFiles,      tasks_};
};

}  // namespace

void runStepped(std::span<char*> arguments) {
  // Threads use these objects until the process ends, so they are never destroyed.
  auto& control = ControlServer::connect();
  const auto setup = control.receiveSetup();
  prepareStandardStreams();
  auto& machine = *new POSIXMachine(setup, arguments, control);
  control.serve(machine, setup.machine.platform, machine.timeline);
  runHelper(machine.platform());
}

}  // namespace palaver
