// Implements the contract with AVAudioConverter.
#pragma once

#include "platform/AudioConverter.h"

namespace palaver {

class AppleAudioConverters final : public AudioConverters {
 public:
  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) override;
};

}  // namespace palaver
