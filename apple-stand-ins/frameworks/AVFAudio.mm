// Implements AVFAudio on Linux with the contracts of the audio converter and of sound files.
#import <AVFAudio/AVFAudio.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#import "apple-stand-ins/frameworks/StandIns.h"

using palaver::AudioFormat;
using palaver::FrameworkBehaviour;
using palaver::PCMBuffer;

namespace {

// Name of the exceptions that AVFAudio raises for programming errors. Unverified: public reports.
NSExceptionName const avfaudioException = @"com.apple.coreaudio.avfaudio";

std::size_t bytesPerFrame(const AudioFormat &format) {
  return palaver::bytesPerSample(format.commonFormat) * (format.interleaved ? format.channelCount : 1);
}

}  // namespace

@interface AVAudioFormat ()
- (instancetype)initWithFormat:(const AudioFormat &)format;
@end

@interface AVAudioPCMBuffer ()
- (void)takeFrames:(const PCMBuffer &)samples;
@end

@implementation AVAudioFormat {
 @public
  AudioFormat format_;
}
- (instancetype)initWithCommonFormat:(AVAudioCommonFormat)format
                          sampleRate:(double)sampleRate
                            channels:(AVAudioChannelCount)channels
                         interleaved:(BOOL)interleaved {
  // More than two channels require a layout, which this initializer does not take.
  if (channels > 2) return nil;
  return [self initWithFormat:{static_cast<palaver::CommonFormat>(format), sampleRate, channels,
                               static_cast<bool>(interleaved)}];
}
- (instancetype)initWithFormat:(const AudioFormat &)format {
  if ((self = [super init])) format_ = format;
  return self;
}
- (AVAudioCommonFormat)commonFormat {
  return static_cast<AVAudioCommonFormat>(format_.commonFormat);
}
- (double)sampleRate {
  return format_.sampleRate;
}
- (AVAudioChannelCount)channelCount {
  return format_.channelCount;
}
- (BOOL)isInterleaved {
  return format_.interleaved;
}
// Ignores interleaving for one channel. Source: the SDK's comment on isEqual:.
- (BOOL)isEqual:(id)other {
  return [other isKindOfClass:[AVAudioFormat class]] && format_ == ((AVAudioFormat *)other)->format_;
}
- (NSUInteger)hash {
  return static_cast<NSUInteger>(format_.sampleRate) + format_.channelCount;
}
@end

@implementation AVAudioBuffer {
 @protected
  AVAudioFormat *format_;
}
- (AVAudioFormat *)format {
  return format_;
}
@end

@implementation AVAudioPCMBuffer {
  const AudioBufferList *foreign_;
  void (^deallocator_)(const AudioBufferList *);
  std::vector<int16_t *> int16Channels_;
  std::vector<float *> floatChannels_;
}
@synthesize frameCapacity = frameCapacity_, frameLength = frameLength_;
- (instancetype)initWithPCMFormat:(AVAudioFormat *)format
                 bufferListNoCopy:(const AudioBufferList *)bufferList
                      deallocator:(void (^)(const AudioBufferList *))deallocator {
  if (FrameworkBehaviour::current().quirks.refusesForeignMemory) return nil;
  const auto &layout = format->format_;
  const auto size = bytesPerFrame(layout);
  if (size == 0) return nil;
  if (bufferList->mNumberBuffers != (layout.interleaved ? 1 : layout.channelCount))
    palaver::raise(avfaudioException, "required condition is false: one buffer for each channel");
  if (!(self = [super init])) return nil;
  format_ = format;
  foreign_ = bufferList;
  deallocator_ = [deallocator copy];
  frameCapacity_ = static_cast<AVAudioFrameCount>(bufferList->mBuffers[0].mDataByteSize / size);
  frameLength_ = frameCapacity_;
  for (uint32_t i = 0; i < bufferList->mNumberBuffers; ++i) {
    void *const samples = bufferList->mBuffers[i].mData;
    if (layout.commonFormat == palaver::CommonFormat::int16)
      int16Channels_.push_back(static_cast<int16_t *>(samples));
    if (layout.commonFormat == palaver::CommonFormat::float32)
      floatChannels_.push_back(static_cast<float *>(samples));
  }
  return self;
}
- (void)dealloc {
  if (deallocator_) deallocator_(foreign_);
}
- (void)setFrameLength:(AVAudioFrameCount)frames {
  if (frames > frameCapacity_)
    palaver::raise(avfaudioException, "required condition is false: length <= _impl->_capacity");
  frameLength_ = frames;
}
- (int16_t *const *)int16ChannelData {
  return int16Channels_.empty() ? nullptr : int16Channels_.data();
}
- (float *const *)floatChannelData {
  return floatChannels_.empty() ? nullptr : floatChannels_.data();
}
// Copies the frames of a buffer of the same format and adopts their number.
- (void)takeFrames:(const PCMBuffer &)samples {
  const auto &layout = format_->format_;
  const std::size_t values = samples.frameLength() * (layout.interleaved ? layout.channelCount : 1);
  for (uint32_t i = 0; i < foreign_->mNumberBuffers; ++i) {
    if (const auto *const whole = samples.int16ChannelData(i)) std::copy_n(whole, values, int16Channels_[i]);
    if (const auto *const real = samples.floatChannelData(i)) std::copy_n(real, values, floatChannels_[i]);
  }
  self.frameLength = samples.frameLength();
}
@end

namespace palaver {

NSError *makeError(const PlatformError &error) {
  const auto text = [](const std::string &of) { return [NSString stringWithUTF8String:of.c_str()] ?: @""; };
  return [NSError errorWithDomain:text(error.domain())
                             code:error.code()
                         userInfo:@{NSLocalizedDescriptionKey : text(error.localizedDescription())}];
}

void raise(NSExceptionName name, const char *reason) {
  @throw [NSException exceptionWithName:name reason:[NSString stringWithUTF8String:reason] userInfo:nil];
}

AudioFormat formatOf(AVAudioFormat *format) { return format->format_; }

std::shared_ptr<PCMBuffer> copySamples(AVAudioPCMBuffer *buffer) {
  const auto format = formatOf(buffer.format);
  auto copied = std::make_shared<PCMBuffer>(format, buffer.frameLength);
  copied->setFrameLength(buffer.frameLength);
  const std::size_t values = buffer.frameLength * (format.interleaved ? format.channelCount : 1);
  for (std::uint32_t i = 0; i < (format.interleaved ? 1 : format.channelCount); ++i) {
    if (auto *const whole = copied->int16ChannelData(i))
      std::copy_n(buffer.int16ChannelData[i], values, whole);
    if (auto *const real = copied->floatChannelData(i)) std::copy_n(buffer.floatChannelData[i], values, real);
  }
  return copied;
}

}  // namespace palaver

@implementation AVAudioConverter {
  std::unique_ptr<palaver::AudioConverter> converter_;
  BOOL hasEnded_;
}
@synthesize inputFormat = inputFormat_, outputFormat = outputFormat_, primeMethod = primeMethod_;
- (instancetype)initFromFormat:(AVAudioFormat *)from toFormat:(AVAudioFormat *)to {
  auto converter = FrameworkBehaviour::current().audioConverters.makeConverter(from->format_, to->format_);
  if (!converter || !(self = [super init])) return nil;
  converter_ = std::move(converter);
  inputFormat_ = from;
  outputFormat_ = to;
  primeMethod_ = AVAudioConverterPrimeMethod_Normal;
  return self;
}
- (void)setPrimeMethod:(AVAudioConverterPrimeMethod)method {
  primeMethod_ = method;
  converter_->setPrimeMethod(static_cast<palaver::ConverterPrimeMethod>(method));
}
- (AVAudioConverterOutputStatus)convertToBuffer:(AVAudioBuffer *)output
                                          error:(NSError **)error
                             withInputFromBlock:(AVAudioConverterInputBlock __attribute__((noescape)))block {
  if (const char *const reason = FrameworkBehaviour::current().quirks.convertRaises)
    palaver::raise(avfaudioException, reason);
  auto *const pcm = static_cast<AVAudioPCMBuffer *>(output);
  if (![pcm.format isEqual:outputFormat_])
    palaver::raise(avfaudioException,
                   "required condition is false: [outputBuffer.format isEqual: _outputFormat]");
  pcm.frameLength = 0;
  // After the end of the stream the converter only reports the end, until it is reset. Unverified: public
  // reports.
  if (hasEnded_) return AVAudioConverterOutputStatus_EndOfStream;
  PCMBuffer converted(palaver::formatOf(outputFormat_), pcm.frameCapacity);
  std::optional<palaver::PlatformError> failure;
  BOOL *const hasEnded = &hasEnded_;
  AVAudioFormat *const expected = inputFormat_;
  const auto status = converter_->convert(
      converted, failure, [&](palaver::ConverterInputStatus &given) -> std::shared_ptr<const PCMBuffer> {
        constexpr AVAudioPacketCount asked = 1024;
        AVAudioConverterInputStatus answer = AVAudioConverterInputStatus_HaveData;
        auto *const input = static_cast<AVAudioPCMBuffer *>(block(asked, &answer));
        // Data with no frames means the end. Source: Apple's documentation of
        // AudioConverterComplexInputDataProc.
        if (answer == AVAudioConverterInputStatus_HaveData && input.frameLength == 0)
          answer = AVAudioConverterInputStatus_EndOfStream;
        given = static_cast<palaver::ConverterInputStatus>(answer);
        if (answer == AVAudioConverterInputStatus_EndOfStream) *hasEnded = YES;
        if (answer != AVAudioConverterInputStatus_HaveData) return nullptr;
        if (![input.format isEqual:expected])
          palaver::raise(avfaudioException,
                         "required condition is false: [buffer.format isEqual: _inputFormat]");
        return palaver::copySamples(input);
      });
  if (failure && error) *error = palaver::makeError(*failure);
  if (!failure) [pcm takeFrames:converted];
  return static_cast<AVAudioConverterOutputStatus>(status);
}
@end

@implementation AVAudioFile {
  std::unique_ptr<palaver::AudioFile> file_;
}
@synthesize processingFormat = processingFormat_;
- (instancetype)initForReading:(NSURL *)url error:(NSError **)error {
  const auto &behaviour = FrameworkBehaviour::current();
  if (behaviour.quirks.opensNothingWithoutError || !(self = [super init])) return nil;
  try {
    file_ = behaviour.audioFiles.openForReading(url.fileSystemRepresentation);
  } catch (const palaver::PlatformError &failure) {
    if (error) *error = palaver::makeError(failure);
    return nil;
  }
  processingFormat_ = [[AVAudioFormat alloc] initWithFormat:file_->processingFormat()];
  return self;
}
- (AVAudioFramePosition)length {
  return file_->length() + FrameworkBehaviour::current().quirks.overstatedLength;
}
- (AVAudioFramePosition)framePosition {
  return file_->framePosition();
}
- (void)setFramePosition:(AVAudioFramePosition)position {
  (void)position;
  palaver::raise(avfaudioException, "this stand-in reads from the start to the end");
}
- (BOOL)readIntoBuffer:(AVAudioPCMBuffer *)buffer error:(NSError **)error {
  if (![buffer.format isEqual:processingFormat_])
    palaver::raise(avfaudioException,
                   "required condition is false: [buffer.format isEqual: _processingFormat]");
  try {
    PCMBuffer samples(file_->processingFormat(), buffer.frameCapacity);
    file_->read(samples);
    // A read at the end fails and leaves the error nil. Unverified: public reports.
    if (samples.frameLength() == 0) return NO;
    [buffer takeFrames:samples];
    return YES;
  } catch (const palaver::PlatformError &failure) {
    if (error) *error = palaver::makeError(failure);
    return NO;
  }
}
@end
