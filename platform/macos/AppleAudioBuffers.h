// Allocates buffers in our own memory, in the formats that the system supports.
#pragma once

#include "platform/AudioBuffer.h"

namespace palaver {

class AppleAudioBuffers final : public AudioBuffers {
 public:
  // Returns none where there is no AVAudioFormat, or where it has no common sample type.
  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override;
  // Also returns null where AVAudioPCMBuffer would: when the size in bytes does not fit 32 bits.
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override;
};

}  // namespace palaver
