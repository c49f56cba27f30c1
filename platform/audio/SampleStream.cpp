#include "platform/audio/SampleStream.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "platform/audio/WaveHeader.h"
#include "platform/audio/openSound.h"

namespace palaver {

namespace {

constexpr std::size_t magicBytes = 12;     // that distinguish WAV and other containers from samples
constexpr std::size_t blockFrames = 1024;  // decoded at once

}  // namespace

void SampleStream::append(std::span<const std::uint8_t> bytes, std::vector<std::int16_t>& out) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  if (!format_) start(false);
  if (format_) convert(out);
}

void SampleStream::finish(std::vector<std::int16_t>& out) {
  if (!format_ && !bytes_.empty()) start(true);
  if (!format_) return;
  convert(out);
  resampler_->finish(out);
}

// Detects the format once enough bytes have arrived.
void SampleStream::start(bool isWhole) {
  if (bytes_.size() < magicBytes && !isWhole) return;
  const auto container = containerOf(bytes_);
  if (container == "WAV") {
    useWave();
    if (!format_ && isWhole) throw std::runtime_error("ends within its WAV header");
  } else if (!container.empty()) {
    throw std::runtime_error("is " + container + ", and only WAV and raw samples are read from a stream");
  } else {
    const auto raw = stated_.value_or(RawFormat{});
    format_ = SampleFormat{SampleEncoding::signed16, raw.sampleRate, raw.channelCount};
  }
  if (format_) resampler_ = std::make_unique<MonoResampler>(format_->sampleRate, format_->channelCount);
}

void SampleStream::useWave() {
  try {
    const auto header = parseWaveHeader(bytes_);
    if (!header) return;
    if (stated_ && (stated_->sampleRate != header->format.sampleRate ||
                    stated_->channelCount != header->format.channelCount))
      throw std::runtime_error("has a WAV header with " + std::to_string(header->format.sampleRate) +
                               " Hz and " + std::to_string(header->format.channelCount) +
                               " channels, which differs from the stated format");
    format_ = header->format;
    left_ = header->dataBytes;
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(header->dataOffset));
  } catch (const WaveError& error) {
    throw std::runtime_error(std::string("is not a readable WAV stream: ") + error.what());
  }
}

void SampleStream::convert(std::vector<std::int16_t>& out) {
  const auto frameBytes = format_->bytesPerFrame();
  const auto channels = static_cast<std::size_t>(format_->channelCount);
  if (left_ && bytes_.size() > *left_) bytes_.resize(static_cast<std::size_t>(*left_));
  std::size_t used = 0;
  while (bytes_.size() - used >= frameBytes) {
    const auto frames = std::min(blockFrames, (bytes_.size() - used) / frameBytes);
    samples_.resize(frames * channels);
    decodeSamples(std::span(bytes_).subspan(used, frames * frameBytes), format_->encoding, samples_);
    resampler_->convert(samples_, out);
    used += frames * frameBytes;
  }
  if (left_) *left_ -= used;
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(used));
}

}  // namespace palaver
