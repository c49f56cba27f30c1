// Re-executes the program as a process that is responsible for itself, on systems that hold the host
// responsible for what this process does. The original process becomes a wrapper around that child. Runs
// first in main().
#pragma once

namespace palaver {

class Responsibility;

// Set to exactly this value in the environment of the re-executed child.
inline constexpr auto disclaimedMarker = "PALAVER_DISCLAIMED=1";

// Returns in the process that should do the work: the re-executed child, or this process if re-execution
// failed. Failures are silent.
//
// Otherwise it does not return. The child inherits the same arguments (all of them, the program's path
// first), every descriptor, and the same environment with the marker added last. SIGTERM, SIGINT and SIGHUP
// are forwarded to it. The process ends when the child ends, with the child's exit status, or with 1 when a
// signal ended it.
//
// Main thread, before any other thread exists. Call once per process.
void reexecDisclaimedIfNeeded(int argumentCount, char** arguments, const Responsibility& responsibility);

}  // namespace palaver
