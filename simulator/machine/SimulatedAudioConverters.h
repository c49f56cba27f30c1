// Converters that work, or that fail in one of the ways in which a platform's converters fail.
#pragma once

#include <atomic>

#include "platform/AudioConverter.h"
#include "platform/audio/SpeexAudioConverter.h"

namespace palaver {

// Any thread, as far as the contract allows; a fault holds for converters made before, too.
class SimulatedAudioConverters final : public AudioConverters {
 public:
  enum class Fault {
    none,
    noConverter,  // no converter can be made
    failing,      // every conversion fails, with an error of the converter's own
  };

  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) override;

  void setFault(Fault fault) { fault_ = fault; }

 private:
  class FaultyConverter;

  SpeexAudioConverters working_;
  std::atomic<Fault> fault_ = Fault::none;
};

}  // namespace palaver
