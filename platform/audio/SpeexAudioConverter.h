// Converts streams of mono audio with the Speex resampler.
#pragma once

#include "platform/AudioConverter.h"

namespace palaver {

// Mono to mono, 16-bit or 32-bit float samples on either side, any pair of whole rates (Hz). The first
// output sample is the first input sample, regardless of the prime method. A few milliseconds of input are
// held back between calls.
class SpeexAudioConverters final : public AudioConverters {
 public:
  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) override;
};

}  // namespace palaver
