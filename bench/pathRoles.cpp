// Runs the helper's own path in a process: the machine's reader, queue and streams, the command channel and
// the backend, with a recognition that counts.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <semaphore>
#include <vector>

#include "bench/CountingRecognition.h"
#include "bench/Usage.h"
#include "bench/roles.h"
#include "core/CommandChannel.h"
#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "legacy/DictationProbe.h"
#include "legacy/LegacySpeechBackend.h"
#include "platform/MainQueue.h"
#include "platform/Process.h"
#include "platform/StandardStreams.h"
#include "platform/makePlatform.h"
#include "platform/posix/POSIXStreams.h"

namespace palaver::bench {

namespace {

// Wraps the machine's process and calls `atExit` before it ends.
class WatchedProcess final : public Process {
 public:
  explicit WatchedProcess(Process& process) : process_(process) {}

  std::function<void()> atExit;

  const std::vector<std::string>& arguments() const override { return process_.arguments(); }
  std::optional<std::string> environmentVariable(std::string_view name) const override {
    return process_.environmentVariable(name);
  }
  bool isMacOSAtLeast(OperatingSystemVersion version) const override {
    return process_.isMacOSAtLeast(version);
  }

 private:
  void terminate(int status) override {
    if (atExit) atExit();
    std::fflush(stdout);
    process_.exit(status);
  }

  Process& process_;
};

// Reports to the main thread how much has been read, and when the input has ended.
class WatchedInput final : public InputHandler {
 public:
  explicit WatchedInput(InputHandler& handler) : handler_(handler) {}

  std::span<char> prepare() override { return handler_.prepare(); }
  void received(std::size_t count) override {
    bytes_ += count;
    handler_.received(count);
  }
  void ended() override {
    ended_.release();
    handler_.ended();
  }

  // Blocks until the input has ended. Returns its length in bytes. Call once.
  std::size_t waitForEnd() {
    ended_.acquire();
    return bytes_;
  }

 private:
  InputHandler& handler_;
  std::size_t bytes_ = 0;
  std::binary_semaphore ended_{0};
};

// Owns everything between stdin and the recognizer. Create on the main thread. Lives until the process ends.
struct Path {
  Path(int argumentCount, char** arguments) : machine(makePlatform(argumentCount, arguments)) {}

  void reportAtExit() {
    process.atExit = [this] {
      const double all = processorSeconds() - processorStart;
      const double mainThread = threadProcessorSeconds() - mainThreadStart;
      report("seconds", monotonicSeconds() - start);
      report("processor", all);
      report("main", mainThread);
      report("reader", all - mainThread);
      report("buffers", static_cast<double>(recognition.buffers()));
    };
    waitForInput();
    start = monotonicSeconds();
    processorStart = processorSeconds();
    mainThreadStart = threadProcessorSeconds();
  }
  int run() {
    machine.standardInput.start(channel);
    machine.mainQueue.run();
  }

  Platform& machine;
  CountingRecognition recognition;
  WatchedProcess process{machine.process};
  // Standard output is reserved for the figures.
  DescriptorOutput events{::open("/dev/null", O_WRONLY | O_CLOEXEC)};
  Platform platform{.clock = machine.clock,
                    .process = process,
                    .mainQueue = machine.mainQueue,
                    .standardInput = machine.standardInput,
                    .standardOutput = events,
                    .standardError = machine.standardError,
                    .audioBuffers = machine.audioBuffers,
                    .speechRecognition = recognition,
                    .speechAnalysis = machine.speechAnalysis,
                    .audioConverters = machine.audioConverters,
                    .audioFiles = machine.audioFiles,
                    .tasks = machine.tasks};
  JSONLineWriter writer{platform.clock, platform.standardOutput, platform.standardError};
  DictationProbe dictation{platform};
  LegacySpeechBackend backend{platform, writer, dictation};
  CommandHandler handler{platform, writer, backend};
  CommandChannel channel{platform.mainQueue, writer, handler};
  double start = 0;
  double processorStart = 0;
  double mainThreadStart = 0;
};

}  // namespace

int runPath(int argumentCount, char** arguments) {
  Path path(argumentCount, arguments);
  path.backend.emitStatus();
  path.reportAtExit();
  return path.run();
}

int runPathArrivals(int argumentCount, char** arguments) {
  Path path(argumentCount, arguments);
  path.backend.emitStatus();
  std::vector<double> arrivals;
  path.recognition.onBuffer = [&arrivals] { arrivals.push_back(monotonicSeconds()); };
  path.process.atExit = [&arrivals] {
    for (const double arrival : arrivals) std::printf("%.9f\n", arrival);
  };
  return path.run();
}

int runStalledPath(int argumentCount, char** arguments) {
  Path path(argumentCount, arguments);
  path.backend.emitStatus();
  WatchedInput input(path.channel);
  path.process.atExit = [&path] {
    report("after", residentBytes());
    report("buffers", static_cast<double>(path.recognition.buffers()));
  };
  report("before", residentBytes());
  path.machine.standardInput.start(input);
  report("input", static_cast<double>(input.waitForEnd()));
  report("stalled", residentBytes());
  path.machine.mainQueue.run();
}

int runPathMemory(int argumentCount, char** arguments) {
  constexpr std::uint64_t perMinute = 2 * 600;  // buffers of 100 ms from two sources
  Path path(argumentCount, arguments);
  path.backend.emitStatus();
  report("before", residentBytes());
  double peak = 0;
  path.recognition.onBuffer = [&path, &peak] {
    const auto buffers = path.recognition.buffers();
    if (buffers % perMinute != 0) return;
    const double now = residentBytes();
    if (buffers == perMinute) report("minute", now);
    peak = std::max(peak, now);
  };
  path.process.atExit = [&path, &peak] {
    report("end", residentBytes());
    report("peak", peak);
    report("buffers", static_cast<double>(path.recognition.buffers()));
  };
  return path.run();
}

}  // namespace palaver::bench
