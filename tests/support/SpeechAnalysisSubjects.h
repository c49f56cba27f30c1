// Provides the analyses that run on any system as subjects of the contract.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "simulator/RecognizedSpeechAnalysis.h"
#include "simulator/ThreadedTimeline.h"
#include "simulator/machine/SimulatedSpeechAnalysis.h"
#include "simulator/scenario/SyntheticAudio.h"
#include "tests/support/AnalysisSession.h"
#include "tests/support/Recording.h"
#include "worker/pocketsphinx/PocketSphinxRecognition.h"

namespace palaver {

// The result of the simulated analysis for one second of any audio.
inline SimulatedAnalysisUtterance tenMeters() {
  return {.partials = {{200, "go"}, {500, "go forward"}, {900, "go forward ten meters"}},
          .finalText = "",
          .finalAfter = std::nullopt,
          .start = 0.125,
          .end = 0.875};
}

class SimulatedAnalysisSubject final : public SpeechAnalysisContractSubject {
 public:
  SimulatedAnalysisSubject() {
    AnalysisState state;
    state.utterances = {tenMeters()};
    for (auto* const operation : {&state.prepare, &state.finalize, &state.cancel}) operation->takes = 1;
    analysis_.setState(state);
  }
  ~SimulatedAnalysisSubject() override { timeline_.end(); }

  SpeechAnalysis& analysis() override { return analysis_; }
  std::string locale() override { return "ja-JP"; }
  std::vector<std::int16_t> speech() override { return samplesOfLoudness(0.1, 16000); }

 private:
  ThreadedTimeline timeline_{2};
  SimulatedSpeechAnalysis analysis_{timeline_, {}};
};

// Uses a real recognizer with a real model, and a recording of "go forward ten meters".
class RecognizedAnalysisSubject final : public SpeechAnalysisContractSubject {
 public:
  SpeechAnalysis& analysis() override { return analysis_; }
  std::string locale() override { return "en-US"; }
  std::vector<std::int16_t> speech() override {
    return readRecording("/usr/share/pocketsphinx/test/data/goforward.raw");
  }

 private:
  PocketSphinxRecognition recognition_;
  RecognizedSpeechAnalysis analysis_{recognition_, {}};
};

}  // namespace palaver
