// Puts recognition and analysis into one of the states that a user's Mac may be in, so that a whole helper
// can be tried in it.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/SpeechAnalysis.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

// The states:
//   ready           English is served for Japanese
//   not-determined  as ready, but without a permission; a request grants it
//   denied, restricted
//   no-recognizer   no recognizer for any locale, as where a managed Mac forbids speech recognition
//   no-model        the model is not installed; its installation succeeds, for this process
//   no-network      as no-model, but its download fails
//   dictation-off   every recognition fails with kLSRErrorDomain 201 and a Japanese text
//   no-transcriber  macOS 26: no transcriber and no locales, as in a virtual machine
// States that concern the other service leave this one ready.
bool isMachineState(const std::string& state);

// Threads: as `recognition`, which must outlive the result.
std::unique_ptr<SpeechRecognition> recognitionInState(SpeechRecognition& recognition, std::string state);

// Threads: as `analysis`, which must outlive the result.
std::unique_ptr<SpeechAnalysis> analysisInState(SpeechAnalysis& analysis, std::string state);

}  // namespace palaver
