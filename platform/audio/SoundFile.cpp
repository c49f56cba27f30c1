#include "platform/audio/SoundFile.h"

#include <sndfile.h>

namespace palaver {

namespace {

[[noreturn]] void fail(SNDFILE* file) {
  throw PlatformError("libsndfile", sf_error(file), sf_strerror(file));
}

}  // namespace

SoundFile::SoundFile(const std::string& path, bool headerless) {
  constexpr int headerlessRate = 16000;  // Hz
  SF_INFO info{};
  if (headerless) {
    info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
    info.samplerate = headerlessRate;
    info.channels = 1;
  }
  file_.reset(sf_open(path.c_str(), SFM_READ, &info));
  if (!file_) fail(nullptr);
  sampleRate_ = info.samplerate;
  channelCount_ = info.channels;
  length_ = info.frames;
}

std::size_t SoundFile::read(std::span<float> samples) {
  const auto capacity = samples.size() / static_cast<std::size_t>(channelCount_);
  const auto frames = sf_readf_float(file_.get(), samples.data(), static_cast<sf_count_t>(capacity));
  if (sf_error(file_.get()) != SF_ERR_NO_ERROR) fail(file_.get());
  return static_cast<std::size_t>(frames);
}

void SoundFile::Close::operator()(sf_private_tag* file) const {
  sf_close(file);
}

}  // namespace palaver
