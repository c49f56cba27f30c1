// The first thing that the program does: where the system holds the host responsible for what this process
// does, start it once more as a process that is responsible for itself, and be no more than a wrapper around
// that.
#pragma once

namespace palaver {

class Responsibility;

// Present with exactly this value in the environment of the process that was started again.
inline constexpr auto disclaimedMarker = "PALAVER_DISCLAIMED=1";

// Returns when this process is to do the work: it has been started again already, or that is impossible, for
// whatever reason; nothing is written then. Otherwise it does not return: the child gets the same arguments
// (all of them, the program's path first), the same environment with the marker added last, and every
// descriptor; SIGTERM, SIGINT and SIGHUP are passed on to it; and the process ends when the child does, with
// its exit status, or with 1 when a signal ended it.
//
// Main thread, before any other thread exists. Once in a process.
void reexecDisclaimedIfNeeded(int argumentCount, char** arguments, const Responsibility& responsibility);

}  // namespace palaver
