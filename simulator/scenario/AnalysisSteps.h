// What scenarios say of speech analysis: its state, what its analyzers answer, and what must have reached
// them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "simulator/machine/SimulatedSpeechAnalysis.h"
#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// Changes in `state` what the object names and leaves the rest. Throws FileError.
void readAnalysisState(const JSON& value, const std::string& where, AnalysisState& state);

// What one analyzer emits.
struct AnalyzerEmission {
  std::size_t analyzer;  // by number from 1 as they are made; 0 is the newest
  NextResult result;
  double after;  // ms
};
AnalyzerEmission readAnalyzerEmission(const JSON& value, const std::string& where);  // Throws FileError.

// Patterns of what reached each analyzer; the keys given count. Throws FileError.
std::vector<JSON> readAnalyzerPatterns(const JSON& values, const std::string& where);

// What reached an analyzer, with all the keys that patterns may have.
JSON toJSON(const RecordedAnalysis& analysis);

}  // namespace palaver
