// Task-based speech recognition: one request of audio, one task that answers with results. Shaped as
// SFSpeechRecognizer.
//
// Threads: every call below is made on the main thread, except where said otherwise. Result handlers may be
// called on any thread, or on the main thread as a platform callback (during MainQueue::run and
// MainQueue::runSlice); never from inside the call that starts the task.
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

// Numbered as SFSpeechRecognizerAuthorizationStatus is; a platform may report values that are not listed.
enum class AuthorizationStatus : long { notDetermined = 0, denied = 1, restricted = 2, authorized = 3 };

// Numbered as SFSpeechRecognitionTaskHint is.
enum class TaskHint : long { unspecified = 0, dictation = 1, search = 2, confirmation = 3 };

struct RecognitionOptions {
  bool shouldReportPartialResults = true;
  bool requiresOnDeviceRecognition = false;
  TaskHint taskHint = TaskHint::unspecified;
  std::vector<std::string> contextualStrings;  // phrases to prefer; at most 100
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

// The audio of one task. One request serves one task.
class RecognitionRequest {
 public:
  virtual ~RecognitionRequest() = default;

  // Appends audio: a mono 16-bit buffer at 16 kHz that nobody changes any more. Kept by reference as long as
  // needed. After endAudio(), or when the task has ended, the audio is dropped.
  virtual void append(std::shared_ptr<const PCMBuffer> buffer) = 0;

  // No more audio: the task now delivers its final result or an error.
  virtual void endAudio() = 0;

 protected:
  RecognitionRequest() = default;
  RecognitionRequest(const RecognitionRequest&) = default;
  RecognitionRequest& operator=(const RecognitionRequest&) = default;
};

// A running recognition. Destroying the handle neither cancels nor ends the task.
class RecognitionTask {
 public:
  virtual ~RecognitionTask() = default;

  // Abandons the task. Its handler may still be called afterwards, with an error or with a result that was
  // under way.
  virtual void cancel() = 0;

 protected:
  RecognitionTask() = default;
  RecognitionTask(const RecognitionTask&) = default;
  RecognitionTask& operator=(const RecognitionTask&) = default;
};

// Called any number of times with a result that is not final, then once more with a final result or an error,
// which ends the task; also with both, or after cancel(). "No speech heard" is an error of code 1110.
using ResultHandler = std::function<void(std::optional<RecognitionResult>, std::optional<PlatformError>)>;

// A recognizer for one locale. Tasks keep what they need of it alive.
class SpeechRecognizer {
 public:
  virtual ~SpeechRecognizer() = default;

  // Whether the locale's model is installed, so that no audio leaves the machine.
  virtual bool supportsOnDeviceRecognition() const = 0;

  virtual std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) = 0;

  // Starts a task on a request made by this recognizer. Never fails by itself: failures come through the
  // handler.
  virtual std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                           ResultHandler handler) = 0;

 protected:
  SpeechRecognizer() = default;
  SpeechRecognizer(const SpeechRecognizer&) = default;
  SpeechRecognizer& operator=(const SpeechRecognizer&) = default;
};

// The recognition service as a whole.
class SpeechRecognition {
 public:
  virtual ~SpeechRecognition() = default;

  // The user's answer so far. Cheap.
  virtual AuthorizationStatus authorizationStatus() const = 0;

  // Asks the user, or the record of an earlier answer. The handler is called once, on any thread, perhaps
  // from inside this call, perhaps never.
  virtual void requestAuthorization(std::function<void(AuthorizationStatus)> handler) = 0;

  // Null when the locale (an identifier such as "ja-JP") is not supported. Cheap; loads no model.
  virtual std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) = 0;

 protected:
  SpeechRecognition() = default;
  SpeechRecognition(const SpeechRecognition&) = default;
  SpeechRecognition& operator=(const SpeechRecognition&) = default;
};

}  // namespace palaver
