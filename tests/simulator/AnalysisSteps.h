// What scenarios say of speech analysis: its state, what its analyzers answer, and what must have reached
// them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/simulated/SimulatedSpeechAnalysis.h"
#include "tests/simulator/EventPattern.h"
#include "tests/simulator/ObjectReader.h"

namespace palaver {

struct Stage;

// Changes in `state` what the object names and leaves the rest. Throws FileError.
void readAnalysisState(const JSON& value, const std::string& where, AnalysisState& state);

// What one analyzer emits, as the action that makes it do so. Throws FileError.
std::function<void(Stage&)> readAnalyzerStep(const JSON& value, const std::string& where);

// Patterns of what reached each analyzer; the keys given count. Throws FileError.
std::vector<JSON> readAnalyzerPatterns(const JSON& values, const std::string& where);

// What differs, as text for the reader, or none.
std::optional<std::string> compareAnalyzers(const std::vector<JSON>& expected,
                                            const std::vector<RecordedAnalysis>& actual,
                                            Variables& variables);

}  // namespace palaver
