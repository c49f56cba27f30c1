#include "platform/audio/SpeexAudioConverter.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <span>
#include <vector>

namespace palaver {

namespace {

// On a scale of 0 to 10, the lowest that keeps 95 dB at 7 kHz for every rate up to 96 kHz (quality 5: 54 dB).
// Holds back 48 input frames, 3 ms at 16 kHz, and more when downsampling.
constexpr int quality = 6;

bool isServed(const AudioFormat& format) {
  return format.channelCount == 1 &&
         (format.commonFormat == CommonFormat::int16 || format.commonFormat == CommonFormat::float32) &&
         format.sampleRate >= 1 && format.sampleRate <= 1e6 &&
         format.sampleRate == std::floor(format.sampleRate);
}

constexpr float fullScale = 32768;

// Reads samples of one buffer as floats, full scale 1.
void readSamples(const PCMBuffer& buffer, std::size_t from, std::span<float> samples) {
  if (const auto* const whole = buffer.int16ChannelData()) {
    std::transform(whole + from, whole + from + samples.size(), samples.begin(),
                   [](std::int16_t sample) { return static_cast<float>(sample) / fullScale; });
  } else {
    std::copy_n(buffer.floatChannelData() + from, samples.size(), samples.begin());
  }
}

void writeSamples(PCMBuffer& buffer, std::size_t at, std::span<const float> samples) {
  if (auto* const whole = buffer.int16ChannelData()) {
    std::transform(samples.begin(), samples.end(), whole + at, [](float sample) {
      return static_cast<std::int16_t>(
          std::lrintf(std::clamp(sample * fullScale, -fullScale, fullScale - 1)));
    });
  } else {
    std::copy(samples.begin(), samples.end(), buffer.floatChannelData() + at);
  }
}

class SpeexAudioConverter final : public AudioConverter {
 public:
  // `resampler` is null when the rates are equal.
  SpeexAudioConverter(const AudioFormat& from, const AudioFormat& to, SpeexResamplerState* resampler)
      : from_(from), to_(to), resampler_(resampler, &speex_resampler_destroy) {}

  const AudioFormat& inputFormat() const override { return from_; }
  const AudioFormat& outputFormat() const override { return to_; }
  void setPrimeMethod(ConverterPrimeMethod) override {}  // the stream is always aligned

  ConverterOutputStatus convert(PCMBuffer& output, std::optional<PlatformError>& error,
                                const InputBlock& input) override {
    output.setFrameLength(0);
    std::uint32_t written = 0;
    auto status = ConverterInputStatus::haveData;
    for (;;) {
      if (!current_) {
        current_ = input(status);
        consumed_ = 0;
        if (status != ConverterInputStatus::haveData || !current_) break;
        if (current_->format() != from_) {
          current_.reset();
          error.emplace("PalaverSTT", -50, "The audio is not in the converter's input format");
          return ConverterOutputStatus::error;
        }
      }
      written += convertSome(output, written);
      if (consumed_ < current_->frameLength()) break;  // output full; the rest is kept for the next call
      current_.reset();
    }
    output.setFrameLength(written);
    if (current_) return ConverterOutputStatus::haveData;
    return status == ConverterInputStatus::endOfStream ? ConverterOutputStatus::endOfStream
                                                       : ConverterOutputStatus::inputRanDry;
  }

 private:
  // Converts the rest of the current buffer as far as it fits. Returns the frames written.
  std::uint32_t convertSome(PCMBuffer& output, std::uint32_t at) {
    constexpr std::size_t run = 512;
    std::array<float, run> in;
    std::array<float, run> out;
    const std::uint32_t start = at;
    while (consumed_ < current_->frameLength()) {
      const auto room = std::min<std::uint32_t>(run, output.frameCapacity() - at);
      auto given = std::min<std::uint32_t>(run, current_->frameLength() - consumed_);
      if (room == 0) break;
      if (!resampler_) given = std::min(given, room);
      readSamples(*current_, consumed_, std::span(in).first(given));
      spx_uint32_t used = given;
      spx_uint32_t made = room;
      if (resampler_) {
        speex_resampler_process_float(resampler_.get(), 0, in.data(), &used, out.data(), &made);
        writeSamples(output, at, std::span<const float>(out).first(made));
      } else {
        made = given;
        writeSamples(output, at, std::span<const float>(in).first(made));
      }
      if (used == 0 && made == 0) break;
      consumed_ += used;
      at += made;
    }
    return at - start;
  }

  const AudioFormat from_;
  const AudioFormat to_;
  std::unique_ptr<SpeexResamplerState, decltype(&speex_resampler_destroy)> resampler_;
  std::shared_ptr<const PCMBuffer> current_;  // input that is not used up
  std::uint32_t consumed_ = 0;                // frames of current_ that have been used
};

}  // namespace

std::unique_ptr<AudioConverter> SpeexAudioConverters::makeConverter(const AudioFormat& from,
                                                                    const AudioFormat& to) {
  if (!isServed(from) || !isServed(to)) return nullptr;
  SpeexResamplerState* resampler = nullptr;
  if (from.sampleRate != to.sampleRate) {
    int error = RESAMPLER_ERR_SUCCESS;
    resampler = speex_resampler_init(1, static_cast<spx_uint32_t>(from.sampleRate),
                                     static_cast<spx_uint32_t>(to.sampleRate), quality, &error);
    if (!resampler) return nullptr;
    // Drops the filter's delay from the start, so that the first output sample is the first input sample.
    speex_resampler_skip_zeros(resampler);
  }
  return std::make_unique<SpeexAudioConverter>(from, to, resampler);
}

}  // namespace palaver
