// Holds PCM audio in memory, and creates formats and buffers, which a platform may refuse.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace palaver {

// Sample types, numbered as in AVAudioCommonFormat.
enum class CommonFormat { other = 0, float32 = 1, float64 = 2, int16 = 3, int32 = 4 };

struct AudioFormat {
  CommonFormat commonFormat = CommonFormat::other;
  double sampleRate = 0;  // Hz
  std::uint32_t channelCount = 0;
  bool interleaved = false;

  // Formats with the same byte layout are equal: interleaving has no effect for one channel.
  friend bool operator==(const AudioFormat& a, const AudioFormat& b) {
    return a.commonFormat == b.commonFormat && a.sampleRate == b.sampleRate &&
           a.channelCount == b.channelCount && (a.channelCount == 1 || a.interleaved == b.interleaved);
  }
};

// Returns the bytes of one sample, 0 for CommonFormat::other.
std::size_t bytesPerSample(CommonFormat format);

// Holds up to `frameCapacity` frames (a frame is one sample of each channel). The first `frameLength` frames
// are valid. Samples are in the machine's byte order. Not thread-safe. Shared as const once filled.
class PCMBuffer {
 public:
  // Throws std::bad_alloc when out of memory.
  PCMBuffer(const AudioFormat& format, std::uint32_t frameCapacity);

  const AudioFormat& format() const { return format_; }
  std::uint32_t frameCapacity() const { return frameCapacity_; }
  std::uint32_t frameLength() const { return frameLength_; }

  // Sets the number of valid frames, at most frameCapacity().
  void setFrameLength(std::uint32_t frames);

  // Returns the samples of one channel, or null when the format has another sample type or no such channel.
  // In an interleaved format, channel 0 is the whole interleaved run.
  std::int16_t* int16ChannelData(std::uint32_t channel = 0) {
    return channelData<std::int16_t>(CommonFormat::int16, channel);
  }
  const std::int16_t* int16ChannelData(std::uint32_t channel = 0) const {
    return const_cast<PCMBuffer*>(this)->int16ChannelData(channel);
  }
  float* floatChannelData(std::uint32_t channel = 0) {
    return channelData<float>(CommonFormat::float32, channel);
  }
  const float* floatChannelData(std::uint32_t channel = 0) const {
    return const_cast<PCMBuffer*>(this)->floatChannelData(channel);
  }

 private:
  template <typename Sample>
  Sample* channelData(CommonFormat wanted, std::uint32_t channel) {
    if (format_.commonFormat != wanted || channel >= format_.channelCount ||
        (format_.interleaved && channel != 0))
      return nullptr;
    return reinterpret_cast<Sample*>(samples_.get()) + std::size_t{channel} * frameCapacity_;
  }

  AudioFormat format_;
  std::uint32_t frameCapacity_;
  std::uint32_t frameLength_ = 0;
  std::unique_ptr<std::byte[]> samples_;
};

// Creates formats and buffers. A platform or a test may refuse both. Any thread.
class AudioBuffers {
 public:
  virtual ~AudioBuffers() = default;

  // Returns none when the platform has no such format.
  virtual std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate,
                                                std::uint32_t channels, bool interleaved) = 0;

  // Creates an empty buffer (frameLength 0). Returns null when it cannot be allocated.
  virtual std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) = 0;

 protected:
  AudioBuffers() = default;
  AudioBuffers(const AudioBuffers&) = default;
  AudioBuffers& operator=(const AudioBuffers&) = default;
};

}  // namespace palaver
