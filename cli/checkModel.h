// Recognizes a recording with an installed model, as the helper does.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/SpeechRecognition.h"
#include "platform/linux/models/SpeechModels.h"

namespace palaver::cli {

struct CheckedModel {
  RecognitionResult result;       // empty when there was no speech
  double loadSeconds = 0;         // from the start of the worker to the end of a task without audio
  double recognitionSeconds = 0;  // from the first sample to the final result, all audio being at hand
};

// Starts a speech worker for the locale, and recognizes audio of 16 kHz in it, in parts of 50 s: more would
// have to wait, and audio that waits is bounded. Main thread. Throws PlatformError.
CheckedModel checkModel(const SpeechModels& models, const std::string& locale,
                        std::span<const std::int16_t> samples);

}  // namespace palaver::cli
