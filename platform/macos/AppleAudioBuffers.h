// Buffers in our own memory, of the formats that the system knows.
#pragma once

#include "platform/AudioBuffer.h"

namespace palaver {

class AppleAudioBuffers final : public AudioBuffers {
 public:
  // None where there is no AVAudioFormat, or where it has no common sample type.
  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override;
  // Null also for what AVAudioPCMBuffer refuses: a buffer whose size in bytes does not fit 32 bits.
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override;
};

}  // namespace palaver
