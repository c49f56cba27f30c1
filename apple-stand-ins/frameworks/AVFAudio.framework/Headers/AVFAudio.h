// Declares the parts of AVFAudio that this project uses. Written for this project after Apple's documentation
// (developer.apple.com/documentation/avfaudio). A Mac uses the SDK's header instead.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// The SDK declares these two in CoreAudioTypes, which its AVFAudio includes.
struct AudioBuffer {
  uint32_t mNumberChannels;  // interleaved channels; 1 per buffer of a non-interleaved format
  uint32_t mDataByteSize;
  void *_Nullable mData;
};
typedef struct AudioBuffer AudioBuffer;

struct AudioBufferList {
  uint32_t mNumberBuffers;
  AudioBuffer mBuffers[1];  // variable length
};
typedef struct AudioBufferList AudioBufferList;

typedef uint32_t AVAudioFrameCount;
typedef uint32_t AVAudioPacketCount;
typedef uint32_t AVAudioChannelCount;
typedef int64_t AVAudioFramePosition;

typedef NS_ENUM(NSUInteger, AVAudioCommonFormat) {
  AVAudioOtherFormat = 0,
  AVAudioPCMFormatFloat32 = 1,
  AVAudioPCMFormatFloat64 = 2,
  AVAudioPCMFormatInt16 = 3,
  AVAudioPCMFormatInt32 = 4,
};

API_AVAILABLE(macos(10.10))
@interface AVAudioFormat : NSObject
@property(nonatomic, readonly) AVAudioCommonFormat commonFormat;
@property(nonatomic, readonly) double sampleRate;  // Hz
@property(nonatomic, readonly) AVAudioChannelCount channelCount;
@property(nonatomic, readonly, getter=isInterleaved) BOOL interleaved;
// Returns nil for more than two channels.
- (nullable instancetype)initWithCommonFormat:(AVAudioCommonFormat)format
                                   sampleRate:(double)sampleRate
                                     channels:(AVAudioChannelCount)channels
                                  interleaved:(BOOL)interleaved;
@end

API_AVAILABLE(macos(10.10))
@interface AVAudioBuffer : NSObject
@property(nonatomic, readonly) AVAudioFormat *format;
@end

API_AVAILABLE(macos(10.10))
@interface AVAudioPCMBuffer : AVAudioBuffer
@property(nonatomic, readonly) AVAudioFrameCount frameCapacity;
@property(nonatomic) AVAudioFrameCount frameLength;
@property(nonatomic, readonly) float *const _Nonnull *_Nullable floatChannelData;
@property(nonatomic, readonly) int16_t *const _Nonnull *_Nullable int16ChannelData;
- (nullable instancetype)initWithPCMFormat:(AVAudioFormat *)format
                          bufferListNoCopy:(const AudioBufferList *)bufferList
                               deallocator:(nullable void (^)(const AudioBufferList *bufferList))deallocator
    API_AVAILABLE(macos(12.0));
@end

typedef NS_ENUM(NSInteger, AVAudioConverterPrimeMethod) {
  AVAudioConverterPrimeMethod_Pre = 0,
  AVAudioConverterPrimeMethod_Normal = 1,
  AVAudioConverterPrimeMethod_None = 2,
};

typedef NS_ENUM(NSInteger, AVAudioConverterInputStatus) {
  AVAudioConverterInputStatus_HaveData = 0,
  AVAudioConverterInputStatus_NoDataNow = 1,
  AVAudioConverterInputStatus_EndOfStream = 2,
};

typedef NS_ENUM(NSInteger, AVAudioConverterOutputStatus) {
  AVAudioConverterOutputStatus_HaveData = 0,
  AVAudioConverterOutputStatus_InputRanDry = 1,
  AVAudioConverterOutputStatus_EndOfStream = 2,
  AVAudioConverterOutputStatus_Error = 3,
};

typedef AVAudioBuffer *_Nullable (^AVAudioConverterInputBlock)(AVAudioPacketCount packets,
                                                               AVAudioConverterInputStatus *status);

API_AVAILABLE(macos(10.11))
@interface AVAudioConverter : NSObject
@property(nonatomic, readonly) AVAudioFormat *inputFormat;
@property(nonatomic, readonly) AVAudioFormat *outputFormat;
@property(nonatomic) AVAudioConverterPrimeMethod primeMethod;
- (nullable instancetype)initFromFormat:(AVAudioFormat *)from toFormat:(AVAudioFormat *)to;
- (AVAudioConverterOutputStatus)convertToBuffer:(AVAudioBuffer *)output
                                          error:(NSError *_Nullable *_Nullable)error
                             withInputFromBlock:(AVAudioConverterInputBlock __attribute__((noescape)))block;
@end

API_AVAILABLE(macos(10.10))
@interface AVAudioFile : NSObject
@property(nonatomic, readonly) AVAudioFormat *processingFormat;
@property(nonatomic, readonly) AVAudioFramePosition length;  // frames
@property(nonatomic) AVAudioFramePosition framePosition;
- (nullable instancetype)initForReading:(NSURL *)url error:(NSError *_Nullable *_Nullable)error;
- (BOOL)readIntoBuffer:(AVAudioPCMBuffer *)buffer error:(NSError *_Nullable *_Nullable)error;
@end

NS_ASSUME_NONNULL_END
