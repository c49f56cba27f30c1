// Holds where the speech worker is found, and the times after which the helper gives it up.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace palaver {

struct WorkerLimits {
  double loading = 60'000;      // ms until the model must be loaded
  double answering = 30'000;    // ms without progress while audio or a final is outstanding ...
  double decodingPace = 2;      // ... and so many ms more for each ms of audio that is being decoded
  double idle = 60'000;         // ms without a channel after which the worker ends
  double check = 1'000;         // ms between checks of the three above
  std::size_t deaths = 3;       // as many deaths ...
  double deathWindow = 60'000;  // ... within so many ms ...
  double pause = 30'000;        // ... start no worker for so many ms
};

// Returns the path of the worker: beside this program, or ../libexec/palaver-stt/PalaverSpeechWorker seen
// from there. The path may not exist. Any thread.
std::filesystem::path findWorkerProgram();

struct WorkerSettings {
  std::function<std::filesystem::path()> program = findWorkerProgram;
  WorkerLimits limits = {};
  // A clock that is never set, ms. Any thread.
  std::function<double()> now = [] {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
};

}  // namespace palaver
