// Reads the speech-analysis parts of scenario files: the analysis state, analyzer emissions and the patterns
// that recorded analyzer input must match.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "simulator/machine/SimulatedSpeechAnalysis.h"
#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// Applies the members of the object to `state` and keeps the rest. Throws FileError.
void readAnalysisState(const JSON& value, const std::string& where, AnalysisState& state);

// Holds one emission of an analyzer.
struct AnalyzerEmission {
  std::size_t analyzer;  // 1-based creation order; 0 is the newest
  NextResult result;
  double after;  // ms
};
AnalyzerEmission readAnalyzerEmission(const JSON& value, const std::string& where);  // Throws FileError.

// Reads one pattern per analyzer. A pattern constrains only the keys it names. Throws FileError.
std::vector<JSON> readAnalyzerPatterns(const JSON& values, const std::string& where);

// Returns the recorded analyzer input with every key that a pattern may name.
JSON toJSON(const RecordedAnalysis& analysis);

}  // namespace palaver
