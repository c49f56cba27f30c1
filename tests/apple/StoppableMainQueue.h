// Serves the main queue of a run loop until a test stops it.
#pragma once

#include "platform/macos/RunLoopMainQueue.h"

namespace palaver {

// Main thread only.
class StoppableMainQueue final : public RunLoopMainQueue {
 public:
  // Serves like run(), until a job or a callback between jobs calls stop().
  void serveUntilStopped() {
    for (isStopped_ = false; !isStopped_;) serveOnce();
  }
  void stop() {
    isStopped_ = true;
    CFRunLoopStop(CFRunLoopGetMain());
  }

 private:
  bool isStopped_ = false;
};

}  // namespace palaver
