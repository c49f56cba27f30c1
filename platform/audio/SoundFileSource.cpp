#include "platform/audio/SoundFileSource.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "platform/audio/SoundFile.h"

namespace palaver {

namespace {

// Scale 0 to 10, the same quality as the helper's resampler: the lowest quality that keeps 95 dB at 7 kHz.
constexpr int resamplerQuality = 6;
constexpr std::size_t blockFrames = 1024;  // read from a file at once
constexpr std::int64_t maxRate = 1000000;  // Hz; the resampler's filter grows with the rate

std::runtime_error unreadable(const std::string& path, const std::string& reason) {
  return std::runtime_error("cannot read " + path + ": " + reason);
}

// Throws unless the path names a non-empty file. libsndfile's messages for these cases are vague.
std::uintmax_t sizeOfFile(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) throw unreadable(path, "there is no such file");
  if (error) throw unreadable(path, error.message());
  if (status.type() == std::filesystem::file_type::directory) throw unreadable(path, "it is a directory");
  if (status.type() != std::filesystem::file_type::regular)
    throw unreadable(path, "it is not a regular file");
  const auto size = std::filesystem::file_size(path, error);
  if (error) throw unreadable(path, error.message());
  if (size == 0) throw unreadable(path, "the file is empty");
  return size;
}

std::string withoutPeriod(std::string message) {
  while (!message.empty() && (message.back() == '.' || message.back() == '\n')) message.pop_back();
  return message;
}

std::int16_t sampleOf(float value) {
  constexpr float fullScale = 32768;
  if (std::isnan(value)) return 0;
  return static_cast<std::int16_t>(std::lrintf(std::clamp(value * fullScale, -fullScale, fullScale - 1)));
}

}  // namespace

class SoundFileSource::Reader {
 public:
  explicit Reader(const std::string& path) : path_(path), file_(open(path)) {
    if (file_.length() == 0) throw unreadable(path, "it contains no audio");
    channels_ = static_cast<std::size_t>(file_.channelCount());
    rate_ = file_.sampleRate();
    interleaved_.resize(blockFrames * channels_);
    if (rate_ == sampleRate) return;
    if (rate_ < 1 || rate_ > maxRate)
      throw unreadable(path, "its rate of " + std::to_string(rate_) + " Hz cannot be resampled");
    int error = RESAMPLER_ERR_SUCCESS;
    resampler_.reset(
        speex_resampler_init(1, static_cast<spx_uint32_t>(rate_), sampleRate, resamplerQuality, &error));
    if (!resampler_) throw unreadable(path, std::string("resampling: ") + speex_resampler_strerror(error));
    // Drops the filter's delay, so that the first output sample is the first input sample.
    speex_resampler_skip_zeros(resampler_.get());
  }

  std::int64_t length() const { return outputFramesFor(file_.length()); }

  std::size_t read(std::span<std::int16_t> frames) {
    std::size_t written = 0;
    while (written < frames.size()) {
      if (consumed_ == mono_.size() && !readBlock()) break;
      const auto room = frames.subspan(written);
      written += resampler_ ? resample(room) : copy(room);
    }
    return written;
  }

 private:
  std::int64_t outputFramesFor(std::int64_t frames) const {
    return std::llround(static_cast<double>(frames) * sampleRate / static_cast<double>(rate_));
  }

  static SoundFile open(const std::string& path) {
    const auto size = sizeOfFile(path);
    const bool headerless = path.ends_with(".raw");
    if (headerless && size % sizeof(std::int16_t) != 0)
      throw unreadable(path, "it is not 16-bit audio: it has an odd number of bytes");
    try {
      return SoundFile(path, headerless);
    } catch (const PlatformError& error) {
      throw unreadable(path, "not a readable sound file: " + withoutPeriod(error.what()));
    }
  }

  std::size_t readFile() {
    try {
      return file_.read(interleaved_);
    } catch (const PlatformError& error) {
      throw unreadable(path_, withoutPeriod(error.what()));
    }
  }

  // Reads and mixes the next block. After the file's end supplies silence, which pushes the last frames
  // through the resampler. Returns false when everything has been delivered.
  bool readBlock() {
    consumed_ = 0;
    mono_.clear();
    if (!ended_) {
      const auto got = readFile();
      framesRead_ += static_cast<std::int64_t>(got);
      mixDown(got);
      if (got > 0) return true;
      ended_ = true;
    }
    if (!resampler_ || framesMade_ >= outputFramesFor(framesRead_)) return false;
    mono_.assign(blockFrames, 0);
    return true;
  }

  void mixDown(std::size_t frames) {
    mono_.resize(frames);
    for (std::size_t frame = 0; frame < frames; ++frame) {
      float sum = 0;
      for (std::size_t channel = 0; channel < channels_; ++channel)
        sum += interleaved_[frame * channels_ + channel];
      mono_[frame] = sum / static_cast<float>(channels_);
    }
  }

  std::size_t copy(std::span<std::int16_t> frames) {
    const auto input = std::span(mono_).subspan(consumed_);
    const auto count = std::min(frames.size(), input.size());
    std::transform(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count), frames.begin(),
                   sampleOf);
    consumed_ += count;
    return count;
  }

  std::size_t resample(std::span<std::int16_t> frames) {
    std::array<float, blockFrames> out;
    auto used = static_cast<spx_uint32_t>(mono_.size() - consumed_);
    auto made = static_cast<spx_uint32_t>(std::min(frames.size(), out.size()));
    if (ended_) {
      const auto left = std::max<std::int64_t>(outputFramesFor(framesRead_) - framesMade_, 0);
      made = static_cast<spx_uint32_t>(std::min<std::int64_t>(made, left));
    }
    if (made == 0) {  // the remaining input is silence
      consumed_ = mono_.size();
      return 0;
    }
    speex_resampler_process_float(resampler_.get(), 0, mono_.data() + consumed_, &used, out.data(), &made);
    consumed_ += used;
    framesMade_ += made;
    std::transform(out.begin(), out.begin() + made, frames.begin(), sampleOf);
    return made;
  }

  std::string path_;
  SoundFile file_;
  std::unique_ptr<SpeexResamplerState, decltype(&speex_resampler_destroy)> resampler_{
      nullptr, &speex_resampler_destroy};
  std::size_t channels_ = 1;
  std::int64_t rate_ = sampleRate;  // Hz
  std::int64_t framesRead_ = 0;     // of the file
  std::int64_t framesMade_ = 0;     // by the resampler
  bool ended_ = false;              // the file has been read to its end
  std::vector<float> interleaved_;
  std::vector<float> mono_;   // one block, full scale 1
  std::size_t consumed_ = 0;  // frames of mono_ already used
};

SoundFileSource::SoundFileSource(const std::string& path) : reader_(std::make_unique<Reader>(path)) {}

SoundFileSource::~SoundFileSource() = default;

std::size_t SoundFileSource::read(std::span<std::int16_t> frames) {
  return reader_->read(frames);
}

std::int64_t SoundFileSource::length() const {
  return reader_->length();
}

}  // namespace palaver
