// Reads the time and memory that a process has used.
#pragma once

#include <cstdio>

namespace palaver::bench {

// Returns the seconds of a monotonic clock, the same for all processes of the machine.
double monotonicSeconds();

// Returns the processor time of all threads of this process, user and system, seconds.
double processorSeconds();

// Returns the processor time of the calling thread, seconds.
double threadProcessorSeconds();

// Returns the resident memory of this process, bytes.
double residentBytes();

// Waits until stdin is readable or has ended, so that the writer's preparation is not measured.
void waitForInput();

// Prints one figure of a child's report.
inline void report(const char* name, double value) {
  std::printf("%s %.9g\n", name, value);
}

}  // namespace palaver::bench
