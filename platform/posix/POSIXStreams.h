// Implements the standard streams on file descriptors.
#pragma once

#include <atomic>
#include <chrono>

#include "platform/StandardStreams.h"

namespace palaver {

// Reads a descriptor on its own thread, in reads as large as the handler's room. Supports blocking and
// non-blocking descriptors, pipes and sockets.
class DescriptorInput final : public StandardInput {
 public:
  // `prepareThread`: called on the reader's thread before the first read.
  explicit DescriptorInput(
      int descriptor, void (*prepareThread)() = [] {})
      : descriptor_(descriptor), prepareThread_(prepareThread) {}

  void start(InputHandler& handler) override;

 private:
  int descriptor_;
  void (*prepareThread_)();
};

// Writes to a descriptor, blocking or not, through interruptions and short writes. Any thread. SIGPIPE
// must be ignored.
class DescriptorOutput final : public OutputStream {
 public:
  explicit DescriptorOutput(int descriptor) : descriptor_(descriptor) {}

  void write(std::string_view bytes) override;
  bool isWritable() const override;
  void limitStalls(double milliseconds) override;

 private:
  using SteadyClock = std::chrono::steady_clock;

  bool isReady(int milliseconds) const;
  bool waitUntilReady() const;
  bool hasStalledSince(SteadyClock::time_point start) const;

  const int descriptor_;
  std::atomic<double> stallLimit_{-1};  // ms; negative: none
  std::atomic<SteadyClock::rep> limitedAt_{0};
  std::atomic<bool> isGivenUp_{false};
};

// Prepares the process for its streams. Ignores SIGPIPE, so that writing to a closed reader is an error.
// Opens any of the three standard descriptors that is closed, so that no file opened later gets its number.
// Main thread, before any other thread.
void prepareStandardStreams();

}  // namespace palaver
