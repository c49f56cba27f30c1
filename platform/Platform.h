// Everything the helper needs of the machine, handed over as references.
#pragma once

#include "platform/AudioBuffer.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Process.h"
#include "platform/SpeechRecognition.h"
#include "platform/StandardStreams.h"

namespace palaver {

// The referenced objects outlive everything that is given a Platform.
struct Platform {
  Clock& clock;
  Process& process;
  MainQueue& mainQueue;
  StandardInput& standardInput;
  OutputStream& standardOutput;
  OutputStream& standardError;
  AudioBuffers& audioBuffers;
  SpeechRecognition& speechRecognition;
};

}  // namespace palaver
