#include "platform/macos/AppleSpeechRecognition.h"

#import <Speech/Speech.h>
#include <dispatch/dispatch.h>

#include <memory>
#include <optional>
#include <utility>

#import "platform/macos/AudioValues.h"
#include "platform/macos/AutoreleasePool.h"
#import "platform/macos/FoundationValues.h"

namespace palaver {

namespace {

RecognitionResult toRecognitionResult(SFSpeechRecognitionResult* result) {
  SFTranscription* const transcription = result.bestTranscription;
  RecognitionResult converted{.formattedString = toString(transcription.formattedString),
                              .segments = {},
                              .isFinal = result.isFinal != NO};
  for (SFTranscriptionSegment* segment in transcription.segments)
    converted.segments.push_back({toString(segment.substring), segment.timestamp, segment.duration});
  return converted;
}

// Dictation is switched off. (Public reports: kLSRErrorDomain 201, whose English text is like this one.) The
// system translates the text, and a caller can only recognize the English one. So this text replaces a
// translated one.
constexpr std::string_view localRecognitionDomain = "kLSRErrorDomain";
constexpr long dictationIsOff = 201;
constexpr const char* dictationIsOffText = "Siri and Dictation are disabled";

PlatformError toRecognitionError(NSError* error) {
  auto converted = toPlatformError(error);
  if (converted.code() == dictationIsOff && converted.domain() == localRecognitionDomain)
    return {converted.domain(), converted.code(), dictationIsOffText};
  return converted;
}

// Represents one request with its task. Shared by both handles and by the block that receives the results.
// The system itself keeps a task and its recognizer alive until the task has ended. Main thread.
class Recognition : public std::enable_shared_from_this<Recognition> {
 public:
  // Starts the task. Returns nil when it could not be started, which the handler reports.
  SFSpeechRecognitionTask* begin(SFSpeechRecognizer* recognizer,
                                 SFSpeechAudioBufferRecognitionRequest* request, ResultHandler handler) {
    handler_ = std::move(handler);
    SFSpeechRecognitionTask* task = nil;
    if (!failure_) {
      const auto self = shared_from_this();
      @try {
        task = [recognizer recognitionTaskWithRequest:request
                                        resultHandler:^(SFSpeechRecognitionResult* result, NSError* error) {
                                          const AutoreleasePool pool;
                                          self->handle(result, error);
                                        }];
      } @catch (NSException* exception) {
        failure_ = toPlatformError(exception);
      }
    }
    task_ = task;
    if (failure_) answerFailure();
    return task;
  }

  // Fails the recognition. The handler gets the error, and nothing after it.
  void fail(const PlatformError& error) {
    if (failure_ || hasEnded_) return;
    failure_ = error;
    if (handler_) answerFailure();
  }

  // Ignores later failures.
  void end() { hasEnded_ = true; }

 private:
  void handle(SFSpeechRecognitionResult* result, NSError* error) {
    if (failure_) return;
    std::optional<RecognitionResult> converted;
    std::optional<PlatformError> failure;
    if (result) converted = toRecognitionResult(result);
    if (error) failure = toRecognitionError(error);
    if (failure || (converted && converted->isFinal)) end();
    handler_(std::move(converted), std::move(failure));
  }

  // Reports the failure like the system reports its own errors. Cancels the task, if there is one.
  void answerFailure() {
    const auto self = shared_from_this();
    dispatch_async(dispatch_get_main_queue(), ^{
      const AutoreleasePool pool;
      [self->task_ cancel];
      self->handler_(std::nullopt, self->failure_);
    });
  }

  ResultHandler handler_;
  __weak SFSpeechRecognitionTask* task_ = nil;
  std::optional<PlatformError> failure_;
  bool hasEnded_ = false;  // or has been cancelled
};

class AppleRecognitionRequest final : public RecognitionRequest {
 public:
  explicit AppleRecognitionRequest(SFSpeechAudioBufferRecognitionRequest* request) : request_(request) {}

  void append(std::shared_ptr<const PCMBuffer> buffer) override {
    if (hasEndedAudio_ || buffer->frameLength() == 0) return;
    const AutoreleasePool pool;
    std::optional<PlatformError> failure;
    @try {
      AVAudioFormat* const format = toAVAudioFormat(buffer->format());
      AVAudioPCMBuffer* const wrapped = wrap(std::move(buffer), format);
      if (wrapped)
        [request_ appendAudioPCMBuffer:wrapped];
      else
        failure = {"PalaverSTT", -1, "The system cannot make an audio buffer for the recognizer"};
    } @catch (NSException* exception) {
      failure = toPlatformError(exception);
    }
    if (failure) recognition_->fail(*failure);
  }

  void endAudio() override {
    if (std::exchange(hasEndedAudio_, true)) return;
    const AutoreleasePool pool;
    [request_ endAudio];
  }

  // Returns none when the request already has a task: a second one would raise an exception.
  std::shared_ptr<Recognition> takeRecognition() {
    return std::exchange(hasTask_, true) ? nullptr : recognition_;
  }
  SFSpeechAudioBufferRecognitionRequest* request() const { return request_; }

 private:
  SFSpeechAudioBufferRecognitionRequest* const request_;
  const std::shared_ptr<Recognition> recognition_ = std::make_shared<Recognition>();
  bool hasTask_ = false;
  bool hasEndedAudio_ = false;
};

class AppleRecognitionTask final : public RecognitionTask {
 public:
  // `task` may be nil.
  AppleRecognitionTask(SFSpeechRecognitionTask* task, std::shared_ptr<Recognition> recognition)
      : task_(task), recognition_(std::move(recognition)) {}

  void cancel() override {
    const AutoreleasePool pool;
    recognition_->end();
    [task_ cancel];
  }

 private:
  SFSpeechRecognitionTask* const task_;
  const std::shared_ptr<Recognition> recognition_;
};

class AppleSpeechRecognizer final : public SpeechRecognizer {
 public:
  explicit AppleSpeechRecognizer(SFSpeechRecognizer* recognizer) : recognizer_(recognizer) {}

  bool supportsOnDeviceRecognition() const override {
    const AutoreleasePool pool;
    return recognizer_.supportsOnDeviceRecognition != NO;
  }

  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
    const AutoreleasePool pool;
    auto* const request = [[SFSpeechAudioBufferRecognitionRequest alloc] init];
    request.shouldReportPartialResults = options.shouldReportPartialResults ? YES : NO;
    request.requiresOnDeviceRecognition = options.requiresOnDeviceRecognition ? YES : NO;
    request.taskHint = static_cast<SFSpeechRecognitionTaskHint>(options.taskHint);
    NSMutableArray<NSString*>* const phrases =
        [NSMutableArray arrayWithCapacity:options.contextualStrings.size()];
    for (const auto& phrase : options.contextualStrings) [phrases addObject:toNSString(phrase)];
    request.contextualStrings = phrases;
    return std::make_shared<AppleRecognitionRequest>(request);
  }

  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override {
    const AutoreleasePool pool;
    auto& ours = static_cast<AppleRecognitionRequest&>(*request);
    auto recognition = ours.takeRecognition();
    if (!recognition) {
      recognition = std::make_shared<Recognition>();
      recognition->fail({"PalaverSTT", -1, "A recognition request serves one task only"});
    }
    SFSpeechRecognitionTask* const task = recognition->begin(recognizer_, ours.request(), std::move(handler));
    return std::make_unique<AppleRecognitionTask>(task, std::move(recognition));
  }

 private:
  SFSpeechRecognizer* const recognizer_;
};

}  // namespace

AuthorizationStatus AppleSpeechRecognition::authorizationStatus() const {
  const AutoreleasePool pool;
  return static_cast<AuthorizationStatus>(SFSpeechRecognizer.authorizationStatus);
}

void AppleSpeechRecognition::requestAuthorization(std::function<void(AuthorizationStatus)> handler) {
  const AutoreleasePool pool;
  [SFSpeechRecognizer requestAuthorization:^(SFSpeechRecognizerAuthorizationStatus status) {
    const AutoreleasePool pool_;
    handler(static_cast<AuthorizationStatus>(status));
  }];
}

std::unique_ptr<SpeechRecognizer> AppleSpeechRecognition::makeRecognizer(std::string_view localeIdentifier) {
  const AutoreleasePool pool;
  NSLocale* const locale = [[NSLocale alloc] initWithLocaleIdentifier:toNSString(localeIdentifier)];
  SFSpeechRecognizer* const recognizer = [[SFSpeechRecognizer alloc] initWithLocale:locale];
  if (!recognizer) return nullptr;
  return std::make_unique<AppleSpeechRecognizer>(recognizer);
}

}  // namespace palaver
