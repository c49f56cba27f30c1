// Simulates a whole machine that runs the helper in virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/audio/SndfileAudioFile.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedAudioConverters.h"
#include "simulator/machine/SimulatedMachine.h"
#include "simulator/machine/SimulatedSpeechAnalysis.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"
#include "simulator/machine/SimulatedTasks.h"

namespace palaver {

struct SimulatedSettings {
  std::optional<OperatingSystemVersion> macOS = OperatingSystemVersion{15, 0, 0};  // none: another system
  double startsAt = 1'700'000'000'000;                                             // ms since the Unix epoch
  std::vector<std::string> arguments;  // without the program's path
  std::map<std::string, std::string, std::less<>> environment;
  std::optional<std::uint64_t> seed;
  RecognitionState recognition;
  AnalysisState analysis;
};

// Confined to one thread. Serves one run.
class SimulatedPlatform {
 public:
  explicit SimulatedPlatform(SimulatedSettings settings = {});
  ~SimulatedPlatform();
  SimulatedPlatform(const SimulatedPlatform&) = delete;
  SimulatedPlatform& operator=(const SimulatedPlatform&) = delete;

  // Runs a program on this machine. Returns its status when it exits, or none when it waits for something
  // that would never happen or only later than `horizon` ms after the start.
  std::optional<int> run(const std::function<void(Platform&)>& program, double horizon);

  Scheduler scheduler;
  SimulatedTasks tasks;  // outlives everything that waits
  SimulatedClock clock;
  SimulatedProcess process;
  SimulatedMainQueue mainQueue;
  SimulatedInput standardInput;
  std::size_t lineCount = 0;  // of both streams
  RecordingOutput standardOutput;
  RecordingOutput standardError;
  SimulatedAudioBuffers audioBuffers;
  SimulatedSpeechRecognition speechRecognition;
  SimulatedSpeechAnalysis speechAnalysis;
  SimulatedAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;

 private:
  void destroyPendingWork();

  Platform platform_;
};

}  // namespace palaver
