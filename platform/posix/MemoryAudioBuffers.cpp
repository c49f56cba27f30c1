#include "platform/posix/MemoryAudioBuffers.h"

#include <new>

namespace palaver {

std::optional<AudioFormat> MemoryAudioBuffers::makeFormat(CommonFormat commonFormat, double sampleRate,
                                                          std::uint32_t channels, bool interleaved) {
  if (bytesPerSample(commonFormat) == 0 || !(sampleRate > 0) || channels == 0) return std::nullopt;
  return AudioFormat{commonFormat, sampleRate, channels, interleaved};
}

std::shared_ptr<PCMBuffer> MemoryAudioBuffers::makeBuffer(const AudioFormat& format,
                                                          std::uint32_t frameCapacity) {
  try {
    return std::make_shared<PCMBuffer>(format, frameCapacity);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace palaver
