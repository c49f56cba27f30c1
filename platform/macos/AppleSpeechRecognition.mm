#include "platform/macos/AppleSpeechRecognition.h"

#import <Speech/Speech.h>
#include <dispatch/dispatch.h>

#include <mutex>
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

// One request with its task: shared by the handles of both and by the block that hears the results. Until the
// task has ended or been cancelled it keeps the recognizer and the task alive. Any thread.
class Recognition : public std::enable_shared_from_this<Recognition> {
 public:
  void begin(SFSpeechRecognizer* recognizer, SFSpeechAudioBufferRecognitionRequest* request,
             ResultHandler handler) {
    handler_ = std::move(handler);
    std::optional<PlatformError> failure;
    {
      const std::lock_guard guard(lock_);
      failure = failure_;
      recognizer_ = recognizer;
      hasBegun_ = true;
    }
    if (failure) return answerLater(*failure);
    const auto self = shared_from_this();
    SFSpeechRecognitionTask* task = nil;
    @try {
      task = [recognizer recognitionTaskWithRequest:request
                                      resultHandler:^(SFSpeechRecognitionResult* result, NSError* error) {
                                        const AutoreleasePool pool;
                                        self->hear(result, error);
                                      }];
    } @catch (NSException* exception) {
      failure = toPlatformError(exception);
    }
    if (failure) return answerLater(*failure);
    const std::lock_guard guard(lock_);
    if (!hasEnded_) task_ = task;
  }

  // The task cannot go on: its handler hears why, and nothing after it.
  void fail(const PlatformError& error) {
    {
      const std::lock_guard guard(lock_);
      if (failure_) return;
      failure_ = error;
      if (!hasBegun_) return;
    }
    answerLater(error);
  }

  void cancel() {
    SFSpeechRecognitionTask* const task = letGo();
    [task cancel];
  }

 private:
  void hear(SFSpeechRecognitionResult* result, NSError* error) {
    std::optional<RecognitionResult> heard;
    std::optional<PlatformError> failure;
    if (result) heard = toRecognitionResult(result);
    if (error) failure = toPlatformError(error);
    answer(std::move(heard), std::move(failure));
  }

  // The contract knows of no answer after the one that ends the task.
  void answer(std::optional<RecognitionResult> result, std::optional<PlatformError> error) {
    const bool ends = error || (result && result->isFinal);
    {
      const std::lock_guard guard(lock_);
      if (hasEnded_) return;
      hasEnded_ = ends;
    }
    if (ends) letGo();
    handler_(std::move(result), std::move(error));
  }

  // An error of our own, in the way in which the system gives its own. The task, if there is one, is given
  // up.
  void answerLater(const PlatformError& error) {
    const auto self = shared_from_this();
    dispatch_async(dispatch_get_main_queue(), ^{
      const AutoreleasePool pool;
      self->cancel();
      self->answer(std::nullopt, error);
    });
  }

  SFSpeechRecognitionTask* letGo() {
    const std::lock_guard guard(lock_);
    recognizer_ = nil;
    return std::exchange(task_, nil);
  }

  std::mutex lock_;
  ResultHandler handler_;  // constant once begun
  SFSpeechRecognizer* recognizer_ = nil;
  SFSpeechRecognitionTask* task_ = nil;
  std::optional<PlatformError> failure_;
  bool hasBegun_ = false;
  bool hasEnded_ = false;
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

  // None when the request has had its task: a second one would raise an exception.
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
  explicit AppleRecognitionTask(std::shared_ptr<Recognition> recognition)
      : recognition_(std::move(recognition)) {}

  void cancel() override {
    const AutoreleasePool pool;
    recognition_->cancel();
  }

 private:
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
    request.shouldReportPartialResults = options.shouldReportPartialResults;
    request.requiresOnDeviceRecognition = options.requiresOnDeviceRecognition;
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
    recognition->begin(recognizer_, ours.request(), std::move(handler));
    return std::make_unique<AppleRecognitionTask>(std::move(recognition));
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
