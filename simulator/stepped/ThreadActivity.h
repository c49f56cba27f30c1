// Detects whether all threads of a process are idle.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>

namespace palaver {

// Takes a snapshot of all threads of a process from /proc. In an idle process all threads sleep until an
// external event wakes one. One snapshot cannot prove this, because it reads the threads one after the other.
// A thread that ran between two snapshots is either awake or has a higher count of sleeps. Two equal
// snapshots with all threads asleep therefore prove that none ran in between.
//
// Source of the file format: proc(5), /proc/pid/status.
class ThreadActivity {
 public:
  // The snapshot of a process that has ended is empty.
  explicit ThreadActivity(pid_t process);

  // Returns whether there was at least one thread and all slept, none of them in a disk wait.
  bool isAsleep() const { return isAsleep_; }

  friend bool operator==(const ThreadActivity&, const ThreadActivity&) = default;

 private:
  std::map<pid_t, std::uint64_t> sleeps_;  // number of times each thread has gone to sleep
  bool isAsleep_ = false;
};

}  // namespace palaver
