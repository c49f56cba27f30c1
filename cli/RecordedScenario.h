// Turns a recorded conversation into a scenario for PalaverSTTSimulator.
#pragma once

#include <string>

#include "cli/Recording.h"

namespace palaver::cli {

// Returns a scenario in which the host says what it said, the recognizer answers what the helper wrote, and
// the finals are the recorded ones. It is played in virtual time, on the backend that was recorded.
// docs/scenarios.md describes the language.
//
// A text is answered when the helper wrote it, to the task or analyzer of its session and source. Tasks are
// named by a sample that they received. Analyzers are named by their number, so a scenario of macOS 26 must
// have no seed. Finals that the helper made itself when a session stopped have no answer: it makes them
// again. Throws std::runtime_error for a redacted recording.
std::string scenarioOf(const RecordedConversation& recorded, const std::string& title);

}  // namespace palaver::cli
