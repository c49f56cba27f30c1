// Simulates a machine except speech: clock, process, main queue, standard streams, audio buffers. Everything
// but the buffers is confined to the scheduler's one thread.
#pragma once

#include <atomic>
#include <cstddef>
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

// Reports virtual time as a wall clock that showed `startsAt` (ms since the Unix epoch) when
// the machine started.
class SimulatedClock final : public Clock {
 public:
  SimulatedClock(const Scheduler& scheduler, double startsAt) : scheduler_(scheduler), startsAt_(startsAt) {}

  double nowMilliseconds() const override { return startsAt_ + scheduler_.now() + shift_; }

  // Sets the clock's offset from its regular time, ms.
  void setShift(double shift) { shift_ = shift; }

 private:
  const Scheduler& scheduler_;
  const double startsAt_;
  double shift_ = 0;
};

class SimulatedProcess final : public Process {
 public:
  // `arguments` begins with the program's path. `macOS`: none simulates another system.
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

// Delivers bytes in the background when they arrive. Bytes that arrive before reading starts are held back.
class SimulatedInput final : public StandardInput {
 public:
  explicit SimulatedInput(Scheduler& scheduler) : scheduler_(scheduler) {}

  void start(InputHandler& handler) override;

  // Delivers bytes or ends the input now. In the background.
  void arrive(std::string bytes);
  void end();

 private:
  void handOver();

  Scheduler& scheduler_;
  InputHandler* handler_ = nullptr;
  std::deque<std::string> waiting_;
  bool hasEnded_ = false;
};

// Records the written lines with the time of each.
class RecordingOutput final : public OutputStream {
 public:
  struct Line {
    double time;  // ms since the start, when the write completed the line
    std::string text;
    std::size_t number = 0;  // from 1, among the lines of all streams of the machine; 0: unknown
  };

  // `lineCount`: counts the lines of all streams of the machine.
  RecordingOutput(const Scheduler& scheduler, std::size_t& lineCount)
      : scheduler_(scheduler), lineCount_(lineCount) {}

  void write(std::string_view bytes) override;

  // Returns the whole lines written, without their line feeds.
  const std::vector<Line>& lines() const { return lines_; }
  // Returns the text written after the last line feed.
  const std::string& rest() const { return rest_; }

 private:
  const Scheduler& scheduler_;
  std::size_t& lineCount_;
  std::vector<Line> lines_;
  std::string rest_;
};

// Creates buffers, or refuses them in one of several ways.
class SimulatedAudioBuffers final : public AudioBuffers {
 public:
  enum class Fault {
    none,
    noFormat,       // no format can be created
    noBuffer,       // no buffer can be allocated
    noEmptyBuffer,  // no buffer of capacity 0 can be allocated
    noSamples,      // buffers have no 16-bit samples
    noOtherFormat,  // only buffers in the format of decoded payloads can be allocated
  };

  // Creates buffers in plain memory.
  SimulatedAudioBuffers() = default;
  // Creates buffers with another platform's `working`, which must outlive this.
  explicit SimulatedAudioBuffers(AudioBuffers& working) : working_(&working) {}

  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override;
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override;

  // Any thread.
  void setFault(Fault fault) { fault_ = fault; }

  // Return how many buffers exist, and how many existed at most. Buffers of another platform do not count.
  std::size_t buffersLeft() const { return *left_; }
  std::size_t mostBuffers() const { return most_; }

 private:
  AudioBuffers* const working_ = nullptr;
  std::atomic<Fault> fault_ = Fault::none;
  // Shared with the buffers, which may outlive this. One thread makes buffers, any may release them.
  const std::shared_ptr<std::atomic<std::size_t>> left_ = std::make_shared<std::atomic<std::size_t>>(0);
  std::size_t most_ = 0;
};

}  // namespace palaver
