// Runs the helper's own path in a process: the machine's reader, queue and streams, the command channel and
// the backend, with a recognition that counts.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <semaphore>
#include <string>
#include <utility>
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

// Lets the main thread wait until so many bytes have been read, or all.
class WatchedInput final : public InputHandler {
 public:
  explicit WatchedInput(InputHandler& handler, std::size_t awaited = std::numeric_limits<std::size_t>::max())
      : handler_(handler), awaited_(awaited) {}

  std::span<char> prepare() override { return handler_.prepare(); }
  void received(std::size_t count) override {
    const std::size_t before = std::exchange(bytes_, bytes_ + count);
    handler_.received(count);
    if (before < awaited_ && bytes_ >= awaited_) reached_.release();
  }
  void ended() override {
    if (bytes_ < awaited_) reached_.release();
    handler_.ended();
  }

  // Blocks until the awaited bytes have been read or the input has ended. Returns the number of bytes when
  // the input has ended. Call once.
  std::size_t wait() {
    reached_.acquire();
    return bytes_;
  }

 private:
  InputHandler& handler_;
  const std::size_t awaited_;
  std::size_t bytes_ = 0;
  std::binary_semaphore reached_{0};
};

// Times (monotonic, seconds) at which one line passed each stage.
struct Stages {
  double read = 0;  // read() returned; written by the reader before it queues the line
  double main = 0;  // the main thread started the job
};

// Notes when read() returned.
class StampedInput final : public InputHandler {
 public:
  StampedInput(InputHandler& handler, Stages& stages) : handler_(handler), stages_(stages) {}

  std::span<char> prepare() override { return handler_.prepare(); }
  void received(std::size_t count) override {
    stages_.read = monotonicSeconds();
    handler_.received(count);
  }
  void ended() override { handler_.ended(); }

 private:
  InputHandler& handler_;
  Stages& stages_;
};

// Notes when a job starts.
class StampedQueue final : public MainQueue {
 public:
  StampedQueue(MainQueue& queue, Stages& stages) : queue_(queue), stages_(stages) {}

  void async(Job job) override {
    queue_.async([this, job = std::move(job)] {
      stages_.main = monotonicSeconds();
      job();
    });
  }
  void runSlice(double milliseconds) override { queue_.runSlice(milliseconds); }
  std::unique_ptr<Semaphore> makeSemaphore() override { return queue_.makeSemaphore(); }
  bool isCurrent() const override { return queue_.isCurrent(); }

 private:
  void serve() override { queue_.run(); }

  MainQueue& queue_;
  Stages& stages_;
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
  struct : Platform {
    WatchedProcess& process;
    DescriptorOutput& standardOutput;
    CountingRecognition& speechRecognition;
  } parts{machine, process, events, recognition};
  Platform platform = platformOf(parts);
  JSONLineWriter writer{platform.clock, platform.standardOutput, platform.standardError};
  DictationProbe dictation{platform};
  LegacySpeechBackend backend{platform, writer, dictation};
  CommandHandler handler{platform, writer, backend};
  Stages stages;
  StampedQueue stampedQueue{platform.mainQueue, stages};
  CommandChannel channel{stampedQueue, writer, handler};
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
  struct Arrival {
    Stages stages;
    double recognizer;
  };
  std::vector<Arrival> arrivals;
  path.recognition.onBuffer = [&] { arrivals.push_back({path.stages, monotonicSeconds()}); };
  path.process.atExit = [&] {
    for (const auto& [stages, recognizer] : arrivals)
      std::printf("%.9f %.9f %.9f\n", stages.read, stages.main, recognizer);
  };
  StampedInput input(path.channel, path.stages);
  path.machine.standardInput.start(input);
  path.machine.mainQueue.run();
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
  report("input", static_cast<double>(input.wait()));
  report("stalled", residentBytes());
  path.machine.mainQueue.run();
}

int runPathMemory(int argumentCount, char** arguments) {
  constexpr std::uint64_t twoMinutes = 2 * 2 * 600;      // buffers of 100 ms from two sources
  constexpr std::size_t backlog = std::size_t{4} << 20;  // bytes, more than the blocks kept for reuse
  Path path(argumentCount, arguments);
  path.backend.emitStatus();
  report("before", residentBytes());
  double peak = 0;
  path.recognition.onBuffer = [&path, &peak] {
    const auto buffers = path.recognition.buffers();
    if (buffers % twoMinutes != 0) return;
    const double now = residentBytes();
    if (buffers == twoMinutes) report("minutes", now);
    if (buffers % (5 * twoMinutes) == 0)
      report(("minute-" + std::to_string(2 * buffers / twoMinutes)).c_str(), now);
    peak = std::max(peak, now);
  };
  path.process.atExit = [&path, &peak] {
    report("end", residentBytes());
    report("peak", peak);
    report("buffers", static_cast<double>(path.recognition.buffers()));
  };
  // The main thread lags at first, so that growth after two minutes is not that of the blocks kept for reuse.
  WatchedInput input(path.channel, backlog);
  path.machine.standardInput.start(input);
  input.wait();
  path.machine.mainQueue.run();
}

}  // namespace palaver::bench
