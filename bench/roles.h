// Implements the child processes of the benchmarks. Each reads stdin to its end and prints its figures on
// stdout. Each returns the exit status, or ends the process itself.
#pragma once

namespace palaver::bench {

// Reads and counts line feeds, the minimum cost of input from a pipe. Figures: lines, seconds from the first
// byte, processor (seconds).
int runLimit();

// Reads on an otherwise idle thread. Prints the monotonic time (seconds) of every line feed's arrival.
int runWakeUp();

// Like runWakeUp(), but a second thread, woken by the first through a condition variable, takes the time: the
// two wake-ups of the helper without its work.
int runTwoWakeUps();

// Runs the helper's whole path up to a recognition that counts. Figures: buffers, seconds from the first
// byte, processor (seconds of both threads), reader and main (seconds of each thread).
int runPath(int argumentCount, char** arguments);

// Like runPath(). Prints the monotonic times (seconds) at which read() returned with each buffer, at which
// the main thread started its job, and at which it reached the recognizer.
int runPathArrivals(int argumentCount, char** arguments);

// Like runPath(), with the main thread stalled until all input has been read. Figures, in bytes: input, and
// resident memory before, stalled (all input held) and after (all input handled).
int runStalledPath(int argumentCount, char** arguments);

// Like runPath(), at full speed after a backlog of 4 MiB. Figures: buffers, and resident memory (bytes)
// before, after two minutes of audio of two sources, after every ten (minute-10 and so on), at its peak and
// at the end.
int runPathMemory(int argumentCount, char** arguments);

}  // namespace palaver::bench
