#include "platform/macos/AppleAudioBuffers.h"

#include <limits>
#include <new>

#import "platform/macos/AudioValues.h"
#include "platform/macos/AutoreleasePool.h"

namespace palaver {

std::optional<AudioFormat> AppleAudioBuffers::makeFormat(CommonFormat commonFormat, double sampleRate,
                                                         std::uint32_t channels, bool interleaved) {
  // Checked here, because it is not documented what the system does with such a format.
  if (bytesPerSample(commonFormat) == 0 || !(sampleRate > 0) || channels == 0) return std::nullopt;
  const AutoreleasePool pool;
  AVAudioFormat* const format = toAVAudioFormat({commonFormat, sampleRate, channels, interleaved});
  if (!format) return std::nullopt;
  return toAudioFormat(format);
}

std::shared_ptr<PCMBuffer> AppleAudioBuffers::makeBuffer(const AudioFormat& format,
                                                         std::uint32_t frameCapacity) {
  const double bytes = static_cast<double>(frameCapacity) * format.channelCount *
                       static_cast<double>(bytesPerSample(format.commonFormat));
  if (bytes > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  try {
    return std::make_shared<PCMBuffer>(format, frameCapacity);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace palaver
