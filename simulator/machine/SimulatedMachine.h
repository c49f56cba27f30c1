// The simulated machine but for speech: clock, process, main queue, standard streams, audio buffers. All of
// it but the buffers lives on the scheduler's one thread.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/AudioBuffer.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Process.h"
#include "platform/StandardStreams.h"
#include "simulator/machine/Scheduler.h"

namespace palaver {

// Shows virtual time as a wall clock that read `startsAt` (ms since the Unix epoch) when the machine started.
class SimulatedClock final : public Clock {
 public:
  SimulatedClock(const Scheduler& scheduler, double startsAt) : scheduler_(scheduler), startsAt_(startsAt) {}

  double nowMilliseconds() const override { return startsAt_ + scheduler_.now() + shift_; }

  // Sets the clock as far ahead (or back) of its regular time, in ms.
  void setShift(double shift) { shift_ = shift; }

 private:
  const Scheduler& scheduler_;
  const double startsAt_;
  double shift_ = 0;
};

class SimulatedProcess final : public Process {
 public:
  // `arguments` with the program's path first; `macOS` none stands for another system.
  SimulatedProcess(Scheduler& scheduler, std::vector<std::string> arguments,
                   std::map<std::string, std::string, std::less<>> environment,
                   std::optional<OperatingSystemVersion> macOS)
      : scheduler_(scheduler),
        arguments_(std::move(arguments)),
        environment_(std::move(environment)),
        macOS_(macOS) {}

  const std::vector<std::string>& arguments() const override { return arguments_; }
  std::optional<std::string> environmentVariable(std::string_view name) const override;
  bool isMacOSAtLeast(OperatingSystemVersion version) const override;

 private:
  void terminate(int status) override { scheduler_.exit(status); }

  Scheduler& scheduler_;
  const std::vector<std::string> arguments_;
  const std::map<std::string, std::string, std::less<>> environment_;
  const std::optional<OperatingSystemVersion> macOS_;
};

// Whether `version` is at least `wanted`.
bool isAtLeast(const OperatingSystemVersion& version, const OperatingSystemVersion& wanted);

class SimulatedMainQueue final : public MainQueue {
 public:
  explicit SimulatedMainQueue(Scheduler& scheduler) : scheduler_(scheduler) {}

  void async(Job job) override { scheduler_.queue(std::move(job)); }
  void runSlice(double milliseconds) override { scheduler_.runSlice(milliseconds); }
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return scheduler_.isOnMainThread(); }

 private:
  void serve() override { scheduler_.serve(); }

  Scheduler& scheduler_;
};

// Hands over bytes as they arrive, in the background; bytes that arrive before reading starts wait for it.
class SimulatedInput final : public StandardInput {
 public:
  explicit SimulatedInput(Scheduler& scheduler) : scheduler_(scheduler) {}

  void start(InputHandler& handler) override;

  // Bytes arrive now, or the input ends now. In the background.
  void arrive(std::string bytes);
  void end();

 private:
  void handOver();

  Scheduler& scheduler_;
  InputHandler* handler_ = nullptr;
  std::deque<std::string> waiting_;
  bool hasEnded_ = false;
};

// Keeps what was written, with the time of each write.
class RecordingOutput final : public OutputStream {
 public:
  struct Line {
    double time;  // ms since the start, of the write that completed the line
    std::string text;
  };

  explicit RecordingOutput(const Scheduler& scheduler) : scheduler_(scheduler) {}

  void write(std::string_view bytes) override;

  // The whole lines written, without their line feeds.
  const std::vector<Line>& lines() const { return lines_; }
  // What was written behind the last line feed.
  const std::string& rest() const { return rest_; }

 private:
  const Scheduler& scheduler_;
  std::vector<Line> lines_;
  std::string rest_;
};

// Buffers, refused in one of several ways.
class SimulatedAudioBuffers final : public AudioBuffers {
 public:
  enum class Fault {
    none,
    noFormat,       // no format can be made
    noBuffer,       // no buffer can be allocated
    noEmptyBuffer,  // no buffer of capacity 0 can be allocated
    noSamples,      // buffers have no 16-bit samples
    noOtherFormat,  // no buffer can be allocated but in the format of decoded payloads
  };

  // Those of memory, when they are not refused.
  SimulatedAudioBuffers() = default;
  // Those of another platform, which must outlive this.
  explicit SimulatedAudioBuffers(AudioBuffers& working) : working_(&working) {}

  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override;
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override;

  // Any thread.
  void setFault(Fault fault) { fault_ = fault; }

 private:
  AudioBuffers* const working_ = nullptr;
  std::atomic<Fault> fault_ = Fault::none;
};

}  // namespace palaver
