// What the child processes of the benchmarks do. Each reads standard input to its end and prints its figures
// on standard output. Each returns the exit status, or ends the process itself.
#pragma once

namespace palaver::bench {

// Reads and counts line feeds: the least that anything on a pipe can cost. Figures: lines, seconds from the
// first byte, processor (seconds).
int runLimit();

// Reads on one thread that nothing else keeps busy, and prints the monotonic time (seconds) of every byte's
// arrival.
int runWakeUp();

// The helper's whole path up to a recognition that counts. Figures: buffers, seconds from the first byte,
// processor (seconds of both threads), reader and main (seconds of each thread).
int runPath(int argumentCount, char** arguments);

// The same; prints the monotonic time (seconds) at which each buffer reached the recognizer.
int runPathArrivals(int argumentCount, char** arguments);

// The same with the main thread stalled until all input has been read. Figures, in bytes: input, before,
// stalled (all input held) and after (all input handled), the last three being resident memory.
int runStalledPath(int argumentCount, char** arguments);

// The same at full speed; figures: buffers, and resident memory (bytes) before, after the first minute of
// audio of two sources, at its peak and at the end.
int runPathMemory(int argumentCount, char** arguments);

}  // namespace palaver::bench
