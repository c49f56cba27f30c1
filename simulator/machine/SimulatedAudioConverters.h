// Creates working converters, or converters that fail like a platform's converters may fail.
#pragma once

#include <atomic>

#include "platform/AudioConverter.h"
#include "platform/audio/SpeexAudioConverter.h"

namespace palaver {

// Any thread, as far as the contract allows. A fault also applies to existing converters.
class SimulatedAudioConverters final : public AudioConverters {
 public:
  enum class Fault {
    none,
    noConverter,  // no converter can be created
    failing,      // every conversion fails with an error of the converter
  };

  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) override;

  void setFault(Fault fault) { fault_ = fault; }

 private:
  class FaultyConverter;

  SpeexAudioConverters working_;
  std::atomic<Fault> fault_ = Fault::none;
};

}  // namespace palaver
