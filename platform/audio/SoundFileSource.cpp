#include "platform/audio/SoundFileSource.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <vector>

#include "platform/audio/MonoResampler.h"
#include "platform/audio/SampleReader.h"
#include "platform/audio/SndfileLibrary.h"
#include "platform/audio/openSound.h"

namespace palaver {

namespace {

constexpr std::size_t blockFrames = 1024;  // read from a file at once

std::runtime_error unreadable(const std::string& path, const std::string& reason) {
  return std::runtime_error("cannot read " + path + ": " + reason);
}

// Throws unless the sound can be resampled.
const SampleReader& checked(const std::string& path, const SampleReader& file) {
  if (file.length() == 0) throw unreadable(path, "it contains no audio");
  if (file.sampleRate() < 1 || file.sampleRate() > maxSampleRate)
    throw unreadable(path, "its rate of " + std::to_string(file.sampleRate()) + " Hz cannot be resampled");
  return file;
}

}  // namespace

class SoundFileSource::Reader {
 public:
  Reader(const std::string& path, const RawFormat& raw)
      : path_(path),
        file_(openSound(path, raw, SndfileLibrary::installed())),
        resampler_(checked(path, *file_).sampleRate(), file_->channelCount()),
        interleaved_(blockFrames * static_cast<std::size_t>(file_->channelCount())) {}

  std::int64_t length() const { return resampler_.outputFramesFor(file_->length()); }

  std::size_t read(std::span<std::int16_t> frames) {
    std::size_t written = 0;
    while (written < frames.size()) {
      if (taken_ == ready_.size() && !readBlock()) break;
      const auto count = std::min(frames.size() - written, ready_.size() - taken_);
      std::copy_n(ready_.begin() + static_cast<std::ptrdiff_t>(taken_), count,
                  frames.begin() + static_cast<std::ptrdiff_t>(written));
      taken_ += count;
      written += count;
    }
    return written;
  }

 private:
  // Converts the next block. Returns false when everything has been delivered.
  bool readBlock() {
    taken_ = 0;
    ready_.clear();
    while (ready_.empty() && !ended_) {
      const auto count = readFile();
      resampler_.convert(
          std::span(interleaved_).first(count * static_cast<std::size_t>(file_->channelCount())), ready_);
      if (count == 0) {
        ended_ = true;
        resampler_.finish(ready_);
      }
    }
    return !ready_.empty();
  }

  std::size_t readFile() {
    try {
      return file_->read(interleaved_);
    } catch (const std::exception& error) {
      std::string reason = error.what();
      while (reason.ends_with('.') || reason.ends_with('\n')) reason.pop_back();
      throw unreadable(path_, reason);
    }
  }

  std::string path_;
  std::unique_ptr<SampleReader> file_;
  MonoResampler resampler_;
  std::vector<float> interleaved_;   // one block
  std::vector<std::int16_t> ready_;  // converted
  std::size_t taken_ = 0;            // frames of ready_ already delivered
  bool ended_ = false;               // the file has been read to its end
};

SoundFileSource::SoundFileSource(const std::string& path, const RawFormat& raw)
    : reader_(std::make_unique<Reader>(path, raw)) {}

SoundFileSource::~SoundFileSource() = default;

std::size_t SoundFileSource::read(std::span<std::int16_t> frames) {
  return reader_->read(frames);
}

std::int64_t SoundFileSource::length() const {
  return reader_->length();
}

}  // namespace palaver
