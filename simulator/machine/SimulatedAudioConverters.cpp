#include "simulator/machine/SimulatedAudioConverters.h"

#include <utility>

namespace palaver {

class SimulatedAudioConverters::FaultyConverter final : public AudioConverter {
 public:
  FaultyConverter(const std::atomic<Fault>& fault, std::unique_ptr<AudioConverter> working)
      : fault_(fault), working_(std::move(working)) {}

  const AudioFormat& inputFormat() const override { return working_->inputFormat(); }
  const AudioFormat& outputFormat() const override { return working_->outputFormat(); }
  void setPrimeMethod(ConverterPrimeMethod method) override { working_->setPrimeMethod(method); }

  ConverterOutputStatus convert(PCMBuffer& output, std::optional<PlatformError>& error,
                                const InputBlock& input) override {
    if (fault_ != Fault::failing) return working_->convert(output, error, input);
    error.emplace("com.example.audio", -1, "The converter broke");
    return ConverterOutputStatus::error;
  }

 private:
  const std::atomic<Fault>& fault_;
  const std::unique_ptr<AudioConverter> working_;
};

std::unique_ptr<AudioConverter> SimulatedAudioConverters::makeConverter(const AudioFormat& from,
                                                                        const AudioFormat& to) {
  auto working = fault_ == Fault::noConverter ? nullptr : working_.makeConverter(from, to);
  if (!working) return nullptr;
  return std::make_unique<FaultyConverter>(fault_, std::move(working));
}

}  // namespace palaver
