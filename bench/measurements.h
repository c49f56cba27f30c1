// The measurements. Each starts the processes it needs, several times and in turn with their limit, and
// throws when one of them fails or when the figures cannot be right.
#pragma once

#include <string>
#include <vector>

#include "bench/Row.h"

namespace palaver::bench {

// The whole path against reading only and against a Node script: lines a second and processor time.
std::vector<Row> measureThroughput();

// From the host's write to the recognizer, against a bare wake-up.
std::vector<Row> measureLatency();

// From the start of the process to its first line, against a static C program.
std::vector<Row> measureStartUp();

// Resident memory: with the main thread stalled, and over an hour of audio.
std::vector<Row> measureMemory();

}  // namespace palaver::bench
