// Reads the machine's wall clock.
#pragma once

namespace palaver {

class Clock {
 public:
  virtual ~Clock() = default;

  // Returns the milliseconds since 1970-01-01T00:00:00Z, with their fraction. Any thread. The user may set
  // the clock back or forward.
  virtual double nowMilliseconds() const = 0;

 protected:
  Clock() = default;
  Clock(const Clock&) = default;
  Clock& operator=(const Clock&) = default;
};

}  // namespace palaver
