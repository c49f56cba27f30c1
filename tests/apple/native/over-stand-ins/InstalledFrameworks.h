// Installs the stand-ins for the frameworks, over the Linux resampler and sound files.
#pragma once

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"

namespace palaver {

struct InstalledFrameworks {
  Scheduler scheduler;
  SimulatedSpeechRecognition recognition{scheduler, {}};
  SpeexAudioConverters converters;
  SndfileAudioFiles files;
  FrameworkBehaviour behaviour{recognition, converters, files, {15, 0, 0}};
};

}  // namespace palaver
