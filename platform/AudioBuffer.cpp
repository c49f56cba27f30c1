#include "platform/AudioBuffer.h"

#include <cassert>

namespace palaver {

std::size_t bytesPerSample(CommonFormat format) {
  switch (format) {
    case CommonFormat::int16:
      return 2;
    case CommonFormat::float32:
    case CommonFormat::int32:
      return 4;
    case CommonFormat::float64:
      return 8;
    case CommonFormat::other:
      break;
  }
  return 0;
}

PCMBuffer::PCMBuffer(const AudioFormat& format, std::uint32_t frameCapacity)
    : format_(format),
      frameCapacity_(frameCapacity),
      samples_(std::make_unique_for_overwrite<std::byte[]>(std::size_t{frameCapacity} * format.channelCount *
                                                           bytesPerSample(format.commonFormat))) {}

void PCMBuffer::setFrameLength(std::uint32_t frames) {
  assert(frames <= frameCapacity_);
  frameLength_ = frames;
}

}  // namespace palaver
