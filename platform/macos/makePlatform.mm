#include "platform/makePlatform.h"

#include <pthread/qos.h>
#include <unistd.h>

#include "platform/macos/AppleAudioBuffers.h"
#include "platform/macos/AppleAudioConverter.h"
#include "platform/macos/AppleAudioFile.h"
#include "platform/macos/AppleSpeechRecognition.h"
#include "platform/macos/MacProcess.h"
#include "platform/macos/RunLoopMainQueue.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadPoolTasks.h"
#if PALAVER_HAS_SPEECH_ANALYZER
#include "platform/macos/AppleSpeechAnalysis.h"
#else
#include "platform/posix/AbsentServices.h"
#endif

namespace palaver {

namespace {

// A build without the SDK of macOS 26 reports on macOS 26 that no transcriber is available.
#if PALAVER_HAS_SPEECH_ANALYZER
using MacSpeechAnalysis = AppleSpeechAnalysis;
#else
using MacSpeechAnalysis = AbsentSpeechAnalysis;
#endif

// A failure leaves the thread at the default quality, which only costs time under load.
void useUserInitiatedQuality() { pthread_set_qos_class_self_np(QOS_CLASS_USER_INITIATED, 0); }

struct MacPlatform {
  MacPlatform(int argumentCount, char** arguments) : process(argumentCount, arguments) {}

  SystemClock clock;
  MacProcess process;
  RunLoopMainQueue mainQueue;
  DescriptorInput standardInput{STDIN_FILENO, useUserInitiatedQuality};
  DescriptorOutput standardOutput{STDOUT_FILENO};
  DescriptorOutput standardError{STDERR_FILENO};
  AppleAudioBuffers audioBuffers;
  AppleSpeechRecognition speechRecognition;
  MacSpeechAnalysis speechAnalysis;
  AppleAudioConverters audioConverters;
  AppleAudioFiles audioFiles;
  ThreadPoolTasks tasks;
  Platform platform = platformOf(*this);
};

}  // namespace

Platform& makePlatform(int argumentCount, char** arguments) {
  prepareStandardStreams();
  static MacPlatform macPlatform(argumentCount, arguments);
  return macPlatform.platform;
}

}  // namespace palaver
