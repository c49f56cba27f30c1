// Reads a wall clock that another process sets, so that a long meeting can pass faster than real time.
#pragma once

#include <atomic>
#include <filesystem>

#include "platform/Clock.h"

namespace palaver {

// The time is a number in the machine's format at the start of a file, ms since 1970-01-01T00:00:00Z. The
// file must stay as long as the clock.
class SharedClock final : public Clock {
 public:
  // Throws FileError when the file cannot be read or holds no number.
  explicit SharedClock(const std::filesystem::path& file);
  ~SharedClock() override;
  SharedClock(const SharedClock&) = delete;
  SharedClock& operator=(const SharedClock&) = delete;

  double nowMilliseconds() const override {
    return std::atomic_ref<double>(*time_).load(std::memory_order_acquire);
  }

 private:
  double* time_;  // in the mapped file, which is never written to
};

}  // namespace palaver
