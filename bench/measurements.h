// Measures the helper. Each function starts its processes several times, alternating with their limit. Throws
// when a process fails or when the figures cannot be right.
#pragma once

#include <string>
#include <vector>

#include "bench/Row.h"

namespace palaver::bench {

// Compares the whole path with reading only and with a Node script: lines per second and processor time.
std::vector<Row> measureThroughput();

// Compares the time from the host's write to the recognizer with a bare wake-up.
std::vector<Row> measureLatency();

// Compares the time from the start of the process to its first line with a static C program.
std::vector<Row> measureStartUp();

// Measures resident memory with the main thread stalled, and over an hour of audio.
std::vector<Row> measureMemory();

// Compares the way to an engine in a speech worker and back with a thread of this process.
std::vector<Row> measureWorker();

}  // namespace palaver::bench
