// Recognizes speech in tasks: one request carries the audio, one task delivers results.
// Modelled on SFSpeechRecognizer.
//
// Main thread, unless stated otherwise below. Result handlers may be called on any thread, or on the main
// thread as a platform callback (during MainQueue::run and MainQueue::runSlice), but never inside the call
// that starts the task.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

// Numbered as in SFSpeechRecognizerAuthorizationStatus. A platform may report values that are not listed.
enum class AuthorizationStatus : long { notDetermined = 0, denied = 1, restricted = 2, authorized = 3 };

// Numbered as in SFSpeechRecognitionTaskHint.
enum class TaskHint : long { unspecified = 0, dictation = 1, search = 2, confirmation = 3 };

struct RecognitionOptions {
  bool shouldReportPartialResults = true;
  bool requiresOnDeviceRecognition = false;
  TaskHint taskHint = TaskHint::unspecified;
  std::vector<std::string> contextualStrings;  // phrases to prefer, at most 100
};

struct TranscriptionSegment {
  std::string substring;
  double timestamp = 0;  // seconds from the first sample appended to the request
  double duration = 0;   // seconds
};

struct RecognitionResult {
  std::string formattedString;  // the whole text so far, UTF-8
  std::vector<TranscriptionSegment> segments;
  bool isFinal = false;
};

// Carries the audio of exactly one task.
class RecognitionRequest {
 public:
  virtual ~RecognitionRequest() = default;

  // Appends a mono 16-bit buffer at 16 kHz, which must not change any more. Shares the buffer as long as
  // needed. Audio is dropped after endAudio() or after the end of the task.
  virtual void append(std::shared_ptr<const PCMBuffer> buffer) = 0;

  // Ends the audio. The task then delivers its final result or an error.
  virtual void endAudio() = 0;

 protected:
  RecognitionRequest() = default;
  RecognitionRequest(const RecognitionRequest&) = default;
  RecognitionRequest& operator=(const RecognitionRequest&) = default;
};

// Controls a running recognition. Destroying the handle neither cancels nor ends the task.
class RecognitionTask {
 public:
  virtual ~RecognitionTask() = default;

  // Cancels the task. Its handler may still be called afterwards, with an error or with a result
  // already in flight.
  virtual void cancel() = 0;

 protected:
  RecognitionTask() = default;
  RecognitionTask(const RecognitionTask&) = default;
  RecognitionTask& operator=(const RecognitionTask&) = default;
};

// Called any number of times with a result that is not final, then once more with a final result, an error or
// both, which ends the task. May be called after cancel(). "No speech" is an error of code 1110.
using ResultHandler = std::function<void(std::optional<RecognitionResult>, std::optional<PlatformError>)>;

// Recognizes one locale. Tasks keep alive what they need of it.
class SpeechRecognizer {
 public:
  virtual ~SpeechRecognizer() = default;

  // Returns whether the locale's model is installed, so that no audio leaves the machine.
  virtual bool supportsOnDeviceRecognition() const = 0;

  virtual std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) = 0;

  // Starts a task on a request created by this recognizer. Never fails itself: the handler
  // receives all errors.
  virtual std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                           ResultHandler handler) = 0;

 protected:
  SpeechRecognizer() = default;
  SpeechRecognizer(const SpeechRecognizer&) = default;
  SpeechRecognizer& operator=(const SpeechRecognizer&) = default;
};

// Grants permission and creates recognizers.
class SpeechRecognition {
 public:
  virtual ~SpeechRecognition() = default;

  // Returns the user's answer so far. Cheap.
  virtual AuthorizationStatus authorizationStatus() const = 0;

  // Asks the user, or looks up an earlier answer. Calls the handler at most once, on any thread, possibly
  // inside this call.
  virtual void requestAuthorization(std::function<void(AuthorizationStatus)> handler) = 0;

  // Returns null when the locale (an identifier such as "ja-JP") is not supported. Cheap: loads no model.
  virtual std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) = 0;

  // Returns whether the user can switch Dictation off, which makes all tasks fail.
  virtual bool hasDictationSetting() const { return true; }

  // Announces that tasks in this locale will follow soon, so that a platform can load its model before the
  // first audio. Returns immediately. Tasks report what fails.
  virtual void prepare(std::string_view /*localeIdentifier*/) {}

 protected:
  SpeechRecognition() = default;
  SpeechRecognition(const SpeechRecognition&) = default;
  SpeechRecognition& operator=(const SpeechRecognition&) = default;
};

}  // namespace palaver
