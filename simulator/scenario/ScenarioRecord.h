// What came of a run of a scenario, however it was played, and how that compares with what was expected.
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
    std::string rest;  // what was written behind the last line feed
  };

  Stream output;
  Stream errorOutput;
  std::optional<int> exitStatus;  // none: the helper still runs
  // What reached the services: an object of the lists requests, probes and analyzers.
  JSON received = JSON::object();
  std::vector<std::string> complaints;  // what steps could not do
};

// What has reached the services so far.
JSON receivedBy(const SimulatedSpeechRecognition& recognition, const SimulatedSpeechAnalysis& analysis);

// What went otherwise than expected as text for the reader, or none.
std::optional<std::string> compare(const Scenario& scenario, const ScenarioRecord& record);

}  // namespace palaver
