// Allocates buffers in plain memory, for every format that has a sample type.
#pragma once

#include "platform/AudioBuffer.h"

namespace palaver {

class MemoryAudioBuffers final : public AudioBuffers {
 public:
  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override;
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override;
};

}  // namespace palaver
