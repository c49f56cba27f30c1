// What a process has used so far: time, and memory.
#pragma once

#include <cstdio>

namespace palaver::bench {

// Seconds of a clock that only goes forward, the same for all processes of the machine.
double monotonicSeconds();

// Processor time of all threads of this process, user and system, seconds.
double processorSeconds();

// Processor time of the calling thread alone, seconds.
double threadProcessorSeconds();

// Resident memory of this process, bytes.
double residentBytes();

// Waits until standard input has something to read, or has ended, so that the time a writer needs to get
// ready is nobody's.
void waitForInput();

// Prints one figure of a child's report.
inline void report(const char* name, double value) {
  std::printf("%s %.9g\n", name, value);
}

}  // namespace palaver::bench
