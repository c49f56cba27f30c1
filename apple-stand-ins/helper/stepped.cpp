// Runs the macOS helper on stand-ins in stepped time. It uses its own platform. The control channel drives
// the clock, the ends of waits and the services behind the stand-ins.
#include <string_view>

#include "app/Helper.h"
#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "apple-stand-ins/helper/PromptOnMainThread.h"
#include "apple-stand-ins/helper/SteppedRunLoop.h"
#include "apple-stand-ins/helper/SwiftTasks.h"
#include "apple-stand-ins/swift/AnalysisBehaviour.h"
#include "platform/Platform.h"
#include "platform/makePlatform.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "simulator/stepped/ControlServer.h"
#include "simulator/stepped/SteppedMachine.h"
#include "simulator/stepped/WatchedProcess.h"

namespace palaver {

namespace {

class SteppedMac final : public SteppedMachine {
 public:
  SteppedMac(const ControlServer::Setup& setup, int argumentCount, char** arguments, ControlServer& control)
      : SteppedMachine(setup.machine.platform, setup.startsAt),
        frameworks_(prompt_, audioConverters, audioFiles, *setup.machine.macOS),
        real_(makePlatform(argumentCount, arguments)),
        process_(real_.process, [&control](int status) { control.tellEnd(status); }) {}

  Platform& platform() { return platform_; }

  // A real run loop always delivers inside jobs.
  void setSlicesDeliverInsideJobs(bool) override {}

 private:
  SimulatedAudioBuffers& audioBuffers() override { return audioBuffers_; }

  // Services behind the frameworks.
  PromptOnMainThread prompt_{recognition};
  FrameworkBehaviour frameworks_;
  AnalysisBehaviour swiftFrameworks_{analysis};

  // The platform and its wrappers.
  Platform& real_;
  WatchedProcess process_;
  SteppedRunLoop mainQueue_{real_.mainQueue, timeline};
  SimulatedAudioBuffers audioBuffers_{real_.audioBuffers};
  // One thread, so that two sources act in the same order in every run.
  ThreadPoolTasks tasks_{1};
  Platform platform_{clock,
                     process_,
                     mainQueue_,
                     real_.standardInput,
                     real_.standardOutput,
                     real_.standardError,
                     audioBuffers_,
                     real_.speechRecognition,
                     real_.speechAnalysis,
                     real_.audioConverters,
                     real_.audioFiles,
                     tasks_};
};

// Returns why the helper cannot run on this machine, or none.
std::optional<std::string> reasonToRefuse(const ControlServer::Setup& setup, bool isPrompting) {
  const auto& state = setup.machine.platform;
  if (!setup.machine.macOS) return "this is macOS";
  if (!state.slicesDeliverInsideJobs) return "a real run loop delivers inside jobs, too";
  if (!state.recognition.callbacksOnMainThread && !isPrompting)
    return "the recognizer of macOS answers on the main thread";
  if (const auto& format = state.analysis.format; format && format->commonFormat != CommonFormat::int16)
    return "the analyzers of macOS take 16-bit samples only";
  return std::nullopt;
}

}  // namespace

}  // namespace palaver

int main(int argumentCount, char** arguments) {
  auto& control = palaver::ControlServer::connect();
  const auto setup = control.receiveSetup();
  const bool isPrompting = argumentCount > 1 && std::string_view(arguments[1]) == "--authorize";
  if (const auto reason = palaver::reasonToRefuse(setup, isPrompting)) control.refuse(*reason);
  palaver::runSwiftTasksOneByOne();
  // Never destroyed, because threads use it until the process ends.
  auto& mac = *new palaver::SteppedMac(setup, argumentCount, arguments, control);
  control.serve(mac, setup.machine.platform, mac.timeline);
  palaver::runHelper(mac.platform());
}
