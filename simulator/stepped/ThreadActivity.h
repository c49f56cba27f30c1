// Whether the threads of a process have come to rest.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>

namespace palaver {

// One look at all threads of a process, as /proc shows them. Threads of a process that is at rest are all
// asleep, and stay so until something from outside wakes one. A single look cannot tell, as it sees one
// thread after the other; but a thread that has run between two looks has either not gone back to sleep, or
// has been counted as having done so. So two equal looks, both with all threads asleep, show that none has
// run in between.
//
// Source of the files' format: proc(5), /proc/pid/status.
class ThreadActivity {
 public:
  // Of a process that has ended nothing is seen.
  explicit ThreadActivity(pid_t process);

  // Whether there was a thread at all, and each of them slept, waiting for something other than a disk.
  bool isAsleep() const { return isAsleep_; }

  friend bool operator==(const ThreadActivity&, const ThreadActivity&) = default;

 private:
  std::map<pid_t, std::uint64_t> sleeps_;  // by thread: how often it has gone to sleep
  bool isAsleep_ = false;
};

}  // namespace palaver
