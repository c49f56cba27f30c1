// Checks what holds in every conversation with the helper, whatever the host and the machine do: an oracle
// that needs no expected output. It models the protocol from outside, from commands, events and the input of
// the services.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "simulator/scenario/HostInput.h"
#include "simulator/scenario/ProtocolDescription.h"
#include "simulator/scenario/Scenario.h"
#include "simulator/scenario/ScenarioRecord.h"

namespace palaver {

struct BrokenInvariant {
  std::string id;    // of rules.json, or of invariants()
  std::string what;  // what is wrong
  double time;       // ms since the start
};

// Returns the invariant that was broken first, or none.
std::optional<BrokenInvariant> brokenInvariant(const Scenario& scenario, const ScenarioRecord& record);

// Describes it with the conversation around it.
std::string describe(const BrokenInvariant& broken, const Scenario& scenario, const ScenarioRecord& record);

// Returns id and text of every invariant, in the order in which they are checked.
std::vector<std::pair<std::string, std::string>> invariants();

// --- For the files that check invariants
// --------------------------------------------------------------------------

struct ObservedEvent {
  double time;  // ms since the start, as are all times here
  const std::string& line;
  WrittenEvent event;
  std::string type;
  std::optional<std::string> sessionId;
  std::optional<std::string> source;
  std::string code;  // of a helper.error: of errors.json

  bool isPartial() const { return type == "transcript.partial"; }
  bool isFinal() const { return type == "transcript.final"; }
  bool isTranscript() const { return isPartial() || isFinal(); }
  bool isError() const { return type == "helper.error"; }
  std::string text(const char* key) const;  // empty if it is absent
  double number(const char* key) const;     // 0 if it is absent
  std::pair<std::string, std::string> channel() const {
    return {sessionId.value_or(""), source.value_or("")};
  }
};

class AudioTrace;

// Everything that is known of one run.
struct Observation {
  Observation(const Scenario& ofScenario, const ScenarioRecord& ofRecord);

  const Scenario& scenario;
  const ScenarioRecord& record;
  HostInput input;
  std::vector<ObservedEvent> events;  // of the lines that are JSON objects
  bool isLegacy = true;               // the backend
  std::string mode;                   // the option of a one-shot mode; empty for the command loop
  bool hasUnencodableEvents = false;
  bool hasClockChanges = false;

  // Returns the time by which a command that arrived at `time` has been handled: at once, unless the main
  // thread waits for a probe.
  double handledBy(double time) const;

  // Returns the difference of the helper's clock from its start at that time, none while it is being set.
  std::optional<double> clockShift(double time) const;

  const AudioTrace& audio() const;

 private:
  mutable std::shared_ptr<AudioTrace> audio_;           // made at its first use
  std::vector<std::pair<double, double>> probes_;       // waits of the main thread
  std::vector<std::pair<double, double>> clockShifts_;  // time, shift
};

// Collects what is wrong.
class Findings {
 public:
  void add(double time, std::string what) { found_.emplace_back(time, std::move(what)); }
  const std::vector<std::pair<double, std::string>>& all() const { return found_; }

 private:
  std::vector<std::pair<double, std::string>> found_;
};

struct Invariant {
  const char* id;
  const char* text;  // null: the text of rules.json
  void (*check)(const Observation&, Findings&);
};

std::vector<Invariant> conversationInvariants();
std::vector<Invariant> audioInvariants();
std::vector<Invariant> recognitionInvariants();

}  // namespace palaver
