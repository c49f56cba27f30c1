#include "platform/makePlatform.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/audio/SpeexAudioConverter.h"
#include "platform/linux/LinuxSpeechRecognition.h"
#include "platform/posix/AbsentServices.h"
#include "platform/posix/MemoryAudioBuffers.h"
#include "platform/posix/POSIXProcess.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "platform/posix/ThreadedMainQueue.h"

namespace palaver {

namespace {

struct LinuxPlatform {
  LinuxPlatform(int argumentCount, char** arguments) : process(argumentCount, arguments) {}

  SystemClock clock;
  POSIXProcess process;
  ThreadedMainQueue mainQueue;
  DescriptorInput standardInput{STDIN_FILENO};
  DescriptorOutput standardOutput{STDOUT_FILENO};
  DescriptorOutput standardError{STDERR_FILENO};
  MemoryAudioBuffers audioBuffers;
  LinuxSpeechRecognition speechRecognition{mainQueue, SpeechModels(SpeechModels::usualRoots(&std::getenv))};
  AbsentSpeechAnalysis speechAnalysis;
  SpeexAudioConverters audioConverters;
  AbsentAudioFiles audioFiles;
  ThreadPoolTasks tasks;
  Platform platform = platformOf(*this);
};

}  // namespace

Platform& makePlatform(int argumentCount, char** arguments) {
  prepareStandardStreams();
  // A fixed threshold keeps input blocks in their own mappings, which return to the system when freed. The
  // library's default raises it after the first large block.
  mallopt(M_MMAP_THRESHOLD, 128 << 10);
  static LinuxPlatform linuxPlatform(argumentCount, arguments);
  return linuxPlatform.platform;
}

const Responsibility& machineResponsibility() {
  static const AbsentResponsibility responsibility;
  return responsibility;
}

}  // namespace palaver
