// Combines the parts of a helper's platform that another process controls: time, and the services that
// scenarios script.
#pragma once

#include "platform/audio/SndfileAudioFile.h"
#include "simulator/machine/SimulatedAudioConverters.h"
#include "simulator/scenario/PlatformState.h"
#include "simulator/stepped/SteppedTimeline.h"

namespace palaver {

// The other parts depend on the platform. Lives until the process ends.
class SteppedMachine : public ControlledMachine {
 public:
  // `startsAt` is the clock's value at time 0, ms since the Unix epoch.
  SteppedMachine(const PlatformState& state, double startsAt)
      : clock(timeline, startsAt),
        recognition(timeline, state.recognition),
        analysis(timeline, state.analysis) {}

  SimulatedSpeechRecognition& speechRecognition() override { return recognition; }
  SimulatedSpeechAnalysis& speechAnalysis() override { return analysis; }
  void setFault(SimulatedAudioBuffers::Fault fault) override { audioBuffers().setFault(fault); }
  void setFault(SimulatedAudioConverters::Fault fault) override { audioConverters.setFault(fault); }
  void setClockShift(double milliseconds) override { clock.setShift(milliseconds); }

  SteppedTimeline timeline;
  SteppedClock clock;
  SimulatedAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  SimulatedSpeechRecognition recognition;
  SimulatedSpeechAnalysis analysis;

 private:
  virtual SimulatedAudioBuffers& audioBuffers() = 0;
};

}  // namespace palaver
