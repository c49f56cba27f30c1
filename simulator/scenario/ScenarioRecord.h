// Records the outcome of a scenario run, independent of the runner, and compares it with the expectations.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "simulator/machine/SimulatedMachine.h"
#include "simulator/scenario/Scenario.h"

namespace palaver {

struct ScenarioRecord {
  using Line = RecordingOutput::Line;
  struct Stream {
    std::vector<Line> lines;
    std::string rest;  // output after the last line feed
  };

  Stream output;
  Stream errorOutput;
  std::optional<int> exitStatus;  // none: the helper still runs
  // The input that the services received: an object with the lists "requests", "probes" and "analyzers".
  JSON received = JSON::object();
  std::vector<std::string> complaints;  // errors of steps
};

// Returns what the services have received so far.
JSON receivedBy(const SimulatedSpeechRecognition& recognition, const SimulatedSpeechAnalysis& analysis);

// Describes steps that could not be performed because the helper had exited. `firstTime`: ms since the start.
std::string complaintAboutLateSteps(std::size_t count, double firstTime);

// Returns a readable description of the mismatches, or none. Times of the wall clock are shown as "@" and ms
// since the start.
std::optional<std::string> compare(const Scenario& scenario, const ScenarioRecord& record);

}  // namespace palaver
