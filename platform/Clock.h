// The wall clock of the machine.
#pragma once

namespace palaver {

class Clock {
 public:
  virtual ~Clock() = default;

  // Milliseconds since 1970-01-01T00:00:00Z, the fraction kept. Any thread. Follows the wall clock, so it may
  // be set back or forward by the user.
  virtual double nowMilliseconds() const = 0;

 protected:
  Clock() = default;
  Clock(const Clock&) = default;
  Clock& operator=(const Clock&) = default;
};

}  // namespace palaver
