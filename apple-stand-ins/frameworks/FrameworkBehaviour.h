// Defines the behaviour behind the stand-ins for Apple's frameworks. They play no script of their own but
// forward to this project's contracts, in the way that the frameworks are believed to work. Both the Linux
// recognizer and a simulated one can therefore run behind SFSpeechRecognizer.
//
// Every belief about the frameworks beyond their documentation is a quirk here, with its source. "Public
// report" means unverified.
#pragma once

#include <functional>
#include <optional>

#include "platform/AudioConverter.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

// Switches deviations from the documentation. All are off by default.
struct Quirks {
  // Speech:

  // Every segment of a partial result has timestamp 0 s and duration 0 s. Only the final has times. (Public
  // report: a measurement on macOS 26.5 with 882 callbacks.)
  bool partialsHaveNoTimes = false;

  // The final result has no text but one empty segment, although the partials had the whole text. (Public
  // report of the same measurement: after an end of utterance and silence.)
  bool finalIsEmpty = false;

  // A cancelled task still calls its handler with the pending result and an error like this one. (Public
  // reports: kLSRErrorDomain 301, or kAFAssistantErrorDomain 216 from the service.)
  std::optional<PlatformError> errorAfterCancel;

  // Of several concurrent tasks only the first that receives audio is served. The others receive no result
  // and end with error 1110. (Several public reports, including macOS.)
  bool onlyFirstTaskIsServed = false;

  // A task that has ended calls its handler once more with an error. (Public reports, after final results and
  // after errors.)
  std::optional<PlatformError> errorAfterEnd;

  // The permission request is never answered, because there is no prompt without a login session. (Public
  // report.)
  bool permissionIsNeverAnswered = false;

  // Appending audio raises an exception with this reason. (Not documented by Apple. Its frameworks report
  // programming errors as exceptions.)
  const char* appendRaises = nullptr;

  // Starting a task raises an exception with this reason. (As above.)
  const char* taskRaises = nullptr;

  // AVFAudio:

  // Buffers over foreign memory cannot be created. (Apple's documentation: the result may be nil.)
  bool refusesForeignMemory = false;

  // Frames by which the reported file length exceeds the decoded length. The last read fails without an
  // error. (Public report, for compressed files.)
  long overstatedLength = 0;

  // Opening a file fails without an error. (Public report, for some 24-bit files.)
  bool opensNothingWithoutError = false;

  // Converting raises an exception with this reason.
  const char* convertRaises = nullptr;
};

// Installs the behaviour. Create it before the first use of the frameworks and destroy it after the last. One
// at a time. Set quirks on the main thread before the operation they affect. A task keeps the quirks it
// started with.
class FrameworkBehaviour {
 public:
  FrameworkBehaviour(SpeechRecognition& speechRecognition, AudioConverters& audioConverters,
                     AudioFiles& audioFiles, OperatingSystemVersion systemVersion);
  ~FrameworkBehaviour();
  FrameworkBehaviour(const FrameworkBehaviour&) = delete;
  FrameworkBehaviour& operator=(const FrameworkBehaviour&) = delete;

  // Returns the installed behaviour. Aborts when there is none.
  static FrameworkBehaviour& current();

  SpeechRecognition& speechRecognition;
  AudioConverters& audioConverters;
  AudioFiles& audioFiles;
  // As reported by NSProcessInfo.
  OperatingSystemVersion systemVersion;
  Quirks quirks;
  // Called on the same thread after a block was put on the main dispatch queue. `insideCall`: during a call
  // of the program. Lets a main thread in virtual time schedule a drain.
  std::function<void(bool insideCall)> onDelivery = [](bool) {};
};

}  // namespace palaver
