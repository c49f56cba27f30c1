// Declares the parts of Speech that this project uses from Objective-C++. Written for this project after
// Apple's documentation (developer.apple.com/documentation/speech). A Mac uses the SDK's header instead.
#pragma once

#import <AVFAudio/AVFAudio.h>
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSInteger, SFSpeechRecognizerAuthorizationStatus) {
  SFSpeechRecognizerAuthorizationStatusNotDetermined = 0,
  SFSpeechRecognizerAuthorizationStatusDenied = 1,
  SFSpeechRecognizerAuthorizationStatusRestricted = 2,
  SFSpeechRecognizerAuthorizationStatusAuthorized = 3,
};

typedef NS_ENUM(NSInteger, SFSpeechRecognitionTaskHint) {
  SFSpeechRecognitionTaskHintUnspecified = 0,
  SFSpeechRecognitionTaskHintDictation = 1,
  SFSpeechRecognitionTaskHintSearch = 2,
  SFSpeechRecognitionTaskHintConfirmation = 3,
};

API_AVAILABLE(macos(10.15))
@interface SFTranscriptionSegment : NSObject <NSCopying>
@property(nonatomic, readonly, copy) NSString *substring;
@property(nonatomic, readonly) NSTimeInterval timestamp;
@property(nonatomic, readonly) NSTimeInterval duration;
@end

API_AVAILABLE(macos(10.15))
@interface SFTranscription : NSObject <NSCopying>
@property(nonatomic, readonly, copy) NSString *formattedString;
@property(nonatomic, readonly, copy) NSArray<SFTranscriptionSegment *> *segments;
@end

API_AVAILABLE(macos(10.15))
@interface SFSpeechRecognitionResult : NSObject <NSCopying>
@property(nonatomic, readonly, copy) SFTranscription *bestTranscription;
@property(nonatomic, readonly, getter=isFinal) BOOL final;
@end

API_AVAILABLE(macos(10.15))
@interface SFSpeechRecognitionRequest : NSObject
@property(nonatomic) SFSpeechRecognitionTaskHint taskHint;
@property(nonatomic) BOOL shouldReportPartialResults;
@property(nonatomic, copy) NSArray<NSString *> *contextualStrings;
@property(nonatomic) BOOL requiresOnDeviceRecognition;
@end

API_AVAILABLE(macos(10.15))
@interface SFSpeechAudioBufferRecognitionRequest : SFSpeechRecognitionRequest
- (void)appendAudioPCMBuffer:(AVAudioPCMBuffer *)buffer;
- (void)endAudio;
@end

API_AVAILABLE(macos(10.15))
@interface SFSpeechRecognitionTask : NSObject
- (void)cancel;
@end

API_AVAILABLE(macos(10.15))
@interface SFSpeechRecognizer : NSObject
@property(nonatomic, readonly) BOOL supportsOnDeviceRecognition;
+ (SFSpeechRecognizerAuthorizationStatus)authorizationStatus;
+ (void)requestAuthorization:(void (^)(SFSpeechRecognizerAuthorizationStatus status))handler;
- (nullable instancetype)initWithLocale:(NSLocale *)locale NS_DESIGNATED_INITIALIZER;
- (SFSpeechRecognitionTask *)recognitionTaskWithRequest:(SFSpeechRecognitionRequest *)request
                                          resultHandler:(void (^)(SFSpeechRecognitionResult *_Nullable result,
                                                                  NSError *_Nullable error))handler;
@end

NS_ASSUME_NONNULL_END
