// What lies behind the stand-ins for Apple's frameworks: they play no script of their own, but do what this
// project's contracts do, in the way in which the frameworks are believed to do it. So the recognizer of
// Linux can be heard through SFSpeechRecognizer, and so can a simulated one.
//
// All that is believed of the frameworks beyond their documentation is a quirk here, named with where the
// belief comes from.
#pragma once

#include <functional>
#include <optional>

#include "platform/AudioConverter.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

// All off: the frameworks as documented.
struct Quirks {
  // --- Speech ---

  // Every segment of a partial result is at 0 s and lasts 0 s; only the final has times. (Public report: a
  // measurement on macOS 26.5 with 882 callbacks.)
  bool partialsHaveNoTimes = false;

  // The final result has no text, but one segment without a character, where the partials before it had the
  // whole text. (Public report of the same measurement: after an end of utterance and silence.)
  bool finalIsEmpty = false;

  // A cancelled task still calls its handler: with what was under way, and with an error like this one.
  // (Public reports: kLSRErrorDomain 301, or kAFAssistantErrorDomain 216 from the service.)
  std::optional<PlatformError> errorAfterCancel;

  // Of several tasks that run at the same time, only the first that gets audio is served; the others hear
  // nothing and end with error 1110. (Several public reports, macOS included.)
  bool onlyFirstTaskIsServed = false;

  // A task that has ended is followed by another callback with an error. (Public reports, of both final
  // results and errors.)
  std::optional<PlatformError> errorAfterEnd;

  // Whoever asks for permission never hears of it: without a login session there is no prompt. (Public
  // report.)
  bool permissionIsNeverAnswered = false;

  // Appending audio raises an exception with this reason. (Apple's documentation names no such case;
  // exceptions are how its frameworks report what they call programming errors.)
  const char* appendRaises = nullptr;

  // Starting a task raises an exception with this reason. (As above.)
  const char* taskRaises = nullptr;

  // --- AVFAudio ---

  // No buffer over foreign memory can be made. (Apple's documentation: the result may be nil.)
  bool refusesForeignMemory = false;

  // Length of a file beyond what the decoder gives, in frames: the last read fails without an error. (Public
  // report, of compressed files.)
  long overstatedLength = 0;

  // A file cannot be opened, and there is no error that says why. (Public report, of single files of 24
  // bits.)
  bool opensNothingWithoutError = false;

  // Converting raises an exception with this reason.
  const char* convertRaises = nullptr;
};

// Make one before the first use of the frameworks; it goes after the last. One at a time. The quirks are set
// on the main thread, before what they concern; a task keeps those that it began with.
class FrameworkBehaviour {
 public:
  FrameworkBehaviour(SpeechRecognition& speechRecognition, AudioConverters& audioConverters,
                     AudioFiles& audioFiles, OperatingSystemVersion systemVersion);
  ~FrameworkBehaviour();
  FrameworkBehaviour(const FrameworkBehaviour&) = delete;
  FrameworkBehaviour& operator=(const FrameworkBehaviour&) = delete;

  // Ends the program when there is none.
  static FrameworkBehaviour& current();

  SpeechRecognition& speechRecognition;
  AudioConverters& audioConverters;
  AudioFiles& audioFiles;
  // As NSProcessInfo tells it.
  OperatingSystemVersion systemVersion;
  Quirks quirks;
  // Called when something has been put on the main dispatch queue, on the same thread: from inside one of the
  // program's calls, or not. For a main thread that lives in virtual time and has to be told.
  std::function<void(bool insideCall)> onDelivery = [](bool) {};
};

}  // namespace palaver
