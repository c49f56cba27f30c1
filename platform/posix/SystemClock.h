// Reads the wall clock of the C++ library.
#pragma once

#include <chrono>

#include "platform/Clock.h"

namespace palaver {

class SystemClock final : public Clock {
 public:
  double nowMilliseconds() const override {
    return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  }
};

}  // namespace palaver
