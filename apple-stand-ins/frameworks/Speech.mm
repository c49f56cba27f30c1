// Implements Speech on Linux with the contract of speech recognition. Result handlers run on the main
// dispatch queue, and therefore only while the main thread's run loop runs.
#import <Speech/Speech.h>
#include <dispatch/dispatch.h>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#import "apple-stand-ins/frameworks/StandIns.h"

using palaver::FrameworkBehaviour;
using palaver::PlatformError;
using palaver::RecognitionResult;

using ResultBlock = void (^)(SFSpeechRecognitionResult *_Nullable, NSError *_Nullable);

@interface SFTranscriptionSegment ()
- (instancetype)initWithSegment:(const palaver::TranscriptionSegment &)segment;
@end

@implementation SFTranscriptionSegment
@synthesize substring = substring_, timestamp = timestamp_, duration = duration_;
- (instancetype)initWithSegment:(const palaver::TranscriptionSegment &)segment {
  if ((self = [super init])) {
    substring_ = [NSString stringWithUTF8String:segment.substring.c_str()];
    timestamp_ = segment.timestamp;
    duration_ = segment.duration;
  }
  return self;
}
@end

@interface SFTranscription ()
- (instancetype)initWithResult:(const RecognitionResult &)result;
@end

@implementation SFTranscription
@synthesize formattedString = formattedString_, segments = segments_;
- (instancetype)initWithResult:(const RecognitionResult &)result {
  if (!(self = [super init])) return nil;
  formattedString_ = [NSString stringWithUTF8String:result.formattedString.c_str()];
  NSMutableArray<SFTranscriptionSegment *> *const segments = [NSMutableArray arrayWithCapacity:0];
  for (const auto &segment : result.segments)
    [segments addObject:[[SFTranscriptionSegment alloc] initWithSegment:segment]];
  segments_ = [segments copy];
  return self;
}
@end

@interface SFSpeechRecognitionResult ()
- (instancetype)initWithResult:(const RecognitionResult &)result;
@end

@implementation SFSpeechRecognitionResult
@synthesize bestTranscription = bestTranscription_, final = final_;
- (instancetype)initWithResult:(const RecognitionResult &)result {
  if (!(self = [super init])) return nil;
  bestTranscription_ = [[SFTranscription alloc] initWithResult:result];
  final_ = result.isFinal;
  return self;
}
@end

namespace {

// Shares the state of one task among its recognizer, request and handler.
class Conversation : public std::enable_shared_from_this<Conversation> {
 public:
  explicit Conversation(ResultBlock handler) : handler_([handler copy]) {}
  ~Conversation() { leave(); }
  Conversation(const Conversation &) = delete;
  Conversation &operator=(const Conversation &) = delete;

  // Receives the contract's answer on any thread.
  void hear(std::optional<RecognitionResult> result, std::optional<PlatformError> error) {
    const bool isEnd = error || (result && result->isFinal);
    if (quirks_.onlyFirstTaskIsServed && !isServed()) {
      if (!isEnd) return;
      result.reset();
      error = PlatformError("kAFAssistantErrorDomain", 1110, "No speech detected");
    }
    if (isEnd) leave();
    if (result && !result->isFinal && quirks_.partialsHaveNoTimes)
      for (auto &segment : result->segments) segment.timestamp = segment.duration = 0;
    if (result && result->isFinal && quirks_.finalIsEmpty)
      result = RecognitionResult{.formattedString = "", .segments = {{"", 0, 0}}, .isFinal = true};
    call(result, error, false);
    if (isEnd && quirks_.errorAfterEnd) call(std::nullopt, quirks_.errorAfterEnd, false);
  }

  void cancelled() {
    leave();
    if (quirks_.errorAfterCancel) call(std::nullopt, quirks_.errorAfterCancel, true);
  }

  // Claims service for the first task that receives audio.
  void takesAudio() {
    const std::lock_guard guard(servedLock);
    if (!served) served = this;
  }

 private:
  bool isServed() const {
    const std::lock_guard guard(servedLock);
    return served == this;
  }
  void leave() {
    const std::lock_guard guard(servedLock);
    if (served == this) served = nullptr;
  }

  void call(const std::optional<RecognitionResult> &result, const std::optional<PlatformError> &error,
            bool insideCall) {
    @autoreleasepool {
      SFSpeechRecognitionResult *const given =
          result ? [[SFSpeechRecognitionResult alloc] initWithResult:*result] : nil;
      NSError *const failure = error ? palaver::makeError(*error) : nil;
      ResultBlock const handler = handler_;
      dispatch_async(dispatch_get_main_queue(), ^{
        handler(given, failure);
      });
      onDelivery_(insideCall);
    }
  }

  static inline std::mutex servedLock;
  static inline const Conversation *served = nullptr;

  // Values at the start of the task, because a cancelled task may still answer after its owners are
  // destroyed.
  const palaver::Quirks quirks_ = FrameworkBehaviour::current().quirks;
  const std::function<void(bool)> onDelivery_ = FrameworkBehaviour::current().onDelivery;
  ResultBlock const handler_;
};

}  // namespace

@implementation SFSpeechRecognitionRequest
@synthesize taskHint = taskHint_, shouldReportPartialResults = shouldReportPartialResults_,
            contextualStrings = contextualStrings_,
            requiresOnDeviceRecognition = requiresOnDeviceRecognition_;
- (instancetype)init {
  if ((self = [super init])) {
    shouldReportPartialResults_ = YES;
    contextualStrings_ = [[NSArray alloc] init];
  }
  return self;
}
@end

@interface SFSpeechAudioBufferRecognitionRequest ()
- (std::unique_ptr<palaver::RecognitionTask>)beginWith:(palaver::SpeechRecognizer &)recognizer
                                          conversation:(std::shared_ptr<Conversation>)conversation;
@end

@implementation SFSpeechAudioBufferRecognitionRequest {
  // Audio received before the task starts is kept unchanged and read when it starts.
  NSMutableArray<AVAudioPCMBuffer *> *waiting_;
  BOOL hasEnded_;
  std::shared_ptr<palaver::RecognitionRequest> request_;
  std::shared_ptr<Conversation> conversation_;
}
- (instancetype)init {
  if ((self = [super init])) waiting_ = [NSMutableArray arrayWithCapacity:0];
  return self;
}
- (void)appendAudioPCMBuffer:(AVAudioPCMBuffer *)buffer {
  if (const char *const reason = FrameworkBehaviour::current().quirks.appendRaises)
    palaver::raise(NSInternalInconsistencyException, reason);
  if (hasEnded_) return;
  if (!request_) return [waiting_ addObject:buffer];
  conversation_->takesAudio();
  request_->append(palaver::copySamples(buffer));
}
- (void)endAudio {
  hasEnded_ = YES;
  if (request_) request_->endAudio();
}
- (palaver::RecognitionOptions)options {
  palaver::RecognitionOptions options{.shouldReportPartialResults = self.shouldReportPartialResults != NO,
                                      .requiresOnDeviceRecognition = self.requiresOnDeviceRecognition != NO,
                                      .taskHint = static_cast<palaver::TaskHint>(self.taskHint),
                                      .contextualStrings = {}};
  for (NSString *phrase in self.contextualStrings) options.contextualStrings.emplace_back(phrase.UTF8String);
  return options;
}
- (std::unique_ptr<palaver::RecognitionTask>)beginWith:(palaver::SpeechRecognizer &)recognizer
                                          conversation:(std::shared_ptr<Conversation>)conversation {
  // Unverified: public report of an exception with this name.
  if (request_)
    palaver::raise(NSInternalInconsistencyException,
                   "SFSpeechAudioBufferRecognitionRequest cannot be re-used");
  request_ = recognizer.makeRequest([self options]);
  conversation_ = conversation;
  auto task = recognizer.recognitionTask(request_, [conversation](auto result, auto error) {
    conversation->hear(std::move(result), std::move(error));
  });
  for (AVAudioPCMBuffer *buffer in waiting_) {
    conversation_->takesAudio();
    request_->append(palaver::copySamples(buffer));
  }
  waiting_ = nil;
  if (hasEnded_) request_->endAudio();
  return task;
}
@end

@implementation SFSpeechRecognitionTask {
 @public
  std::unique_ptr<palaver::RecognitionTask> task_;
  std::shared_ptr<Conversation> conversation_;
}
- (void)cancel {
  task_->cancel();
  conversation_->cancelled();
}
@end

@implementation SFSpeechRecognizer {
  std::unique_ptr<palaver::SpeechRecognizer> recognizer_;
}
+ (SFSpeechRecognizerAuthorizationStatus)authorizationStatus {
  return static_cast<SFSpeechRecognizerAuthorizationStatus>(
      FrameworkBehaviour::current().speechRecognition.authorizationStatus());
}
+ (void)requestAuthorization:(void (^)(SFSpeechRecognizerAuthorizationStatus))handler {
  if (FrameworkBehaviour::current().quirks.permissionIsNeverAnswered) return;
  FrameworkBehaviour::current().speechRecognition.requestAuthorization(
      [handler](palaver::AuthorizationStatus status) {
        handler(static_cast<SFSpeechRecognizerAuthorizationStatus>(status));
      });
}
- (instancetype)initWithLocale:(NSLocale *)locale {
  auto recognizer =
      FrameworkBehaviour::current().speechRecognition.makeRecognizer(locale.localeIdentifier.UTF8String);
  if (!recognizer || !(self = [super init])) return nil;
  recognizer_ = std::move(recognizer);
  return self;
}
- (BOOL)supportsOnDeviceRecognition {
  return recognizer_->supportsOnDeviceRecognition();
}
- (SFSpeechRecognitionTask *)recognitionTaskWithRequest:(SFSpeechRecognitionRequest *)request
                                          resultHandler:(ResultBlock)handler {
  if (const char *const reason = FrameworkBehaviour::current().quirks.taskRaises)
    palaver::raise(NSInternalInconsistencyException, reason);
  SFSpeechRecognitionTask *const task = [[SFSpeechRecognitionTask alloc] init];
  task->conversation_ = std::make_shared<Conversation>(handler);
  task->task_ = [static_cast<SFSpeechAudioBufferRecognitionRequest *>(request) beginWith:*recognizer_
                                                                            conversation:task->conversation_];
  return task;
}
@end
