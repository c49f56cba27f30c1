// Everything the helper needs of the machine, handed over as references.
#pragma once

#include "platform/AudioBuffer.h"
#include "platform/AudioConverter.h"
#include "platform/AudioFile.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Process.h"
#include "platform/SpeechAnalysis.h"
#include "platform/SpeechRecognition.h"
#include "platform/StandardStreams.h"
#include "platform/Tasks.h"

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
  SpeechAnalysis& speechAnalysis;
  AudioConverters& audioConverters;
  AudioFiles& audioFiles;
  Tasks& tasks;
};

}  // namespace palaver
