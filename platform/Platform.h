// Bundles references to everything the helper needs of the machine.
#pragma once

namespace palaver {

class AudioBuffers;
class AudioConverters;
class AudioFiles;
class Clock;
class MainQueue;
class OutputStream;
class Process;
class SpeechAnalysis;
class SpeechRecognition;
class StandardInput;
class Tasks;

// The referenced objects outlive every user of a Platform.
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

// References the members of `parts` that are named like those of a Platform.
template <typename Parts>
Platform platformOf(Parts& parts) {
  return {.clock = parts.clock,
          .process = parts.process,
          .mainQueue = parts.mainQueue,
          .standardInput = parts.standardInput,
          .standardOutput = parts.standardOutput,
          .standardError = parts.standardError,
          .audioBuffers = parts.audioBuffers,
          .speechRecognition = parts.speechRecognition,
          .speechAnalysis = parts.speechAnalysis,
          .audioConverters = parts.audioConverters,
          .audioFiles = parts.audioFiles,
          .tasks = parts.tasks};
}

}  // namespace palaver
