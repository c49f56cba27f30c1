// The half of a helper's platform that is in somebody else's hands: time, and what scenarios take hold of.
#pragma once

#include "platform/linux/SndfileAudioFile.h"
#include "platform/simulated/SimulatedAudioConverters.h"
#include "tests/simulator/PlatformState.h"
#include "tests/simulator/stepped/SteppedTimeline.h"

namespace palaver {

// Lives until the process ends.
class SteppedMachine : public ControlledMachine {
 public:
  // `startsAt`: what the clock reads at time 0, ms since the Unix epoch.
  SteppedMachine(const PlatformState& state, double startsAt)
      : clock(timeline, startsAt),
        recognition(timeline, state.recognition),
        analysis(timeline, state.analysis) {}
  // The same with the audio buffers of a platform, which must live as long.
  SteppedMachine(const PlatformState& state, double startsAt, AudioBuffers& buffers)
      : clock(timeline, startsAt),
        audioBuffers(buffers),
        recognition(timeline, state.recognition),
        analysis(timeline, state.analysis) {}

  SimulatedSpeechRecognition& speechRecognition() override { return recognition; }
  SimulatedSpeechAnalysis& speechAnalysis() override { return analysis; }
  void setFault(SimulatedAudioBuffers::Fault fault) override { audioBuffers.setFault(fault); }
  void setFault(SimulatedAudioConverters::Fault fault) override { audioConverters.setFault(fault); }
  void setClockShift(double milliseconds) override { clock.setShift(milliseconds); }

  SteppedTimeline timeline;
  SteppedClock clock;
  SimulatedAudioBuffers audioBuffers;
  SimulatedAudioConverters audioConverters;
  SndfileAudioFiles audioFiles;
  SimulatedSpeechRecognition recognition;
  SimulatedSpeechAnalysis analysis;
};

}  // namespace palaver
