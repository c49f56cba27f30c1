#import "platform/macos/AudioValues.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace palaver {

namespace {

// Owns the data that the system refers to while it uses one of our buffers.
class WrappedSamples {
 public:
  explicit WrappedSamples(std::shared_ptr<const PCMBuffer> buffer) : buffer_(std::move(buffer)) {
    const auto& format = buffer_->format();
    const auto buffers = format.interleaved ? 1 : format.channelCount;
    const auto channels = format.interleaved ? format.channelCount : 1;
    memory_.resize(offsetof(AudioBufferList, mBuffers) + std::size_t{buffers} * sizeof(AudioBuffer));
    list()->mNumberBuffers = buffers;
    for (std::uint32_t i = 0; i < buffers; ++i)
      list()->mBuffers[i] = {channels,
                             static_cast<std::uint32_t>(std::size_t{buffer_->frameCapacity()} * channels *
                                                        bytesPerSample(format.commonFormat)),
                             samples(i)};
  }

  AudioBufferList* list() { return reinterpret_cast<AudioBufferList*>(memory_.data()); }

 private:
  // The system requires non-const samples, even if it only reads them.
  void* samples(std::uint32_t channel) const {
    auto& buffer = const_cast<PCMBuffer&>(*buffer_);
    if (auto* const whole = buffer.int16ChannelData(channel)) return whole;
    return buffer.floatChannelData(channel);
  }

  std::shared_ptr<const PCMBuffer> buffer_;
  std::vector<std::byte> memory_;  // an AudioBufferList, whose length varies
};

}  // namespace

AVAudioFormat* toAVAudioFormat(const AudioFormat& format) {
  return [[AVAudioFormat alloc] initWithCommonFormat:static_cast<AVAudioCommonFormat>(format.commonFormat)
                                          sampleRate:format.sampleRate
                                            channels:format.channelCount
                                         interleaved:format.interleaved ? YES : NO];
}

AudioFormat toAudioFormat(AVAudioFormat* format) {
  return {static_cast<CommonFormat>(format.commonFormat), format.sampleRate, format.channelCount,
          static_cast<bool>(format.interleaved)};
}

AVAudioPCMBuffer* wrap(std::shared_ptr<const PCMBuffer> buffer, AVAudioFormat* format) {
  if (!format || buffer->frameCapacity() == 0) return nil;
  if (!buffer->int16ChannelData() && !buffer->floatChannelData()) return nil;
  const auto frames = buffer->frameLength();
  const auto samples = std::make_shared<WrappedSamples>(std::move(buffer));
  // After calling the block, the system releases it and thereby the samples.
  AVAudioPCMBuffer* const wrapped = [[AVAudioPCMBuffer alloc] initWithPCMFormat:format
                                                               bufferListNoCopy:samples->list()
                                                                    deallocator:^(const AudioBufferList*) {
                                                                      (void)samples;
                                                                    }];
  wrapped.frameLength = frames;
  return wrapped;
}

AVAudioPCMBuffer* borrow(PCMBuffer& buffer, AVAudioFormat* format) {
  AVAudioPCMBuffer* const wrapped = wrap({std::shared_ptr<void>(), &buffer}, format);
  wrapped.frameLength = 0;
  return wrapped;
}

}  // namespace palaver
