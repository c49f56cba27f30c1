#include "platform/audio/MonoResampler.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>

#include "platform/audio/SoundSource.h"

namespace palaver {

namespace {

// Scale 0 to 10, the same quality as the helper's resampler: the lowest quality that keeps 95 dB at 7 kHz.
constexpr int quality = 6;
constexpr std::size_t blockFrames = 1024;  // made at once

std::int16_t sampleOf(float value) {
  constexpr float fullScale = 32768;
  if (std::isnan(value)) return 0;
  return static_cast<std::int16_t>(std::lrintf(std::clamp(value * fullScale, -fullScale, fullScale - 1)));
}

}  // namespace

MonoResampler::MonoResampler(int inputRate, int channelCount)
    : rate_(inputRate), channels_(static_cast<std::size_t>(channelCount)) {
  if (rate_ == sampleRate) return;
  int error = RESAMPLER_ERR_SUCCESS;
  resampler_.reset(speex_resampler_init(1, static_cast<spx_uint32_t>(rate_), sampleRate, quality, &error));
  if (!resampler_) throw std::runtime_error(std::string("resampling: ") + speex_resampler_strerror(error));
  // Drops the filter's delay, so that the first output sample is the first input sample.
  speex_resampler_skip_zeros(resampler_.get());
}

std::int64_t MonoResampler::outputFramesFor(std::int64_t frames) const {
  return std::llround(static_cast<double>(frames) * sampleRate / static_cast<double>(rate_));
}

void MonoResampler::convert(std::span<const float> interleaved, std::vector<std::int16_t>& out) {
  mono_.resize(interleaved.size() / channels_);
  for (std::size_t frame = 0; frame < mono_.size(); ++frame) {
    float sum = 0;
    for (std::size_t channel = 0; channel < channels_; ++channel)
      sum += interleaved[frame * channels_ + channel];
    // An infinite sample would silence the whole length of the filter.
    mono_[frame] = std::isfinite(sum) ? sum / static_cast<float>(channels_) : 0;
  }
  framesRead_ += static_cast<std::int64_t>(mono_.size());
  if (resampler_) {
    resample(out, std::numeric_limits<std::int64_t>::max());
  } else {
    std::ranges::transform(mono_, std::back_inserter(out), sampleOf);
  }
}

void MonoResampler::finish(std::vector<std::int16_t>& out) {
  if (!resampler_) return;
  const auto length = outputFramesFor(framesRead_);
  mono_.assign(blockFrames, 0);  // silence pushes the last frames through the filter
  while (framesMade_ < length) resample(out, length);
}

void MonoResampler::resample(std::vector<std::int16_t>& out, std::int64_t limit) {
  std::array<float, blockFrames> block;
  for (std::size_t consumed = 0; consumed < mono_.size() && framesMade_ < limit;) {
    auto used = static_cast<spx_uint32_t>(mono_.size() - consumed);
    auto made = static_cast<spx_uint32_t>(std::min<std::int64_t>(blockFrames, limit - framesMade_));
    speex_resampler_process_float(resampler_.get(), 0, mono_.data() + consumed, &used, block.data(), &made);
    consumed += used;
    framesMade_ += made;
    std::transform(block.begin(), block.begin() + made, std::back_inserter(out), sampleOf);
  }
}

void MonoResampler::Destroy::operator()(SpeexResamplerState_* resampler) const {
  speex_resampler_destroy(resampler);
}

}  // namespace palaver
