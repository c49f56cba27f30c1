#include "platform/audio/SoundFile.h"

#include "platform/audio/SndfileLibrary.h"

namespace palaver {

namespace {

const SndfileLibrary& installedLibrary() {
  const auto* const library = SndfileLibrary::installed();
  if (!library) throw PlatformError("libsndfile", -1, "libsndfile is not installed");
  return *library;
}

}  // namespace

SoundFile::SoundFile(const std::string& path) : SoundFile(path, installedLibrary()) {}

SoundFile::SoundFile(const std::string& path, const SndfileLibrary& library)
    : library_(library), file_(nullptr, [&library](sf_private_tag* file) { library.close(file); }) {
  SF_INFO info{};
  file_.reset(library_.open(path.c_str(), SFM_READ, &info));
  if (!file_) fail(nullptr);
  sampleRate_ = info.samplerate;
  channelCount_ = info.channels;
  length_ = info.frames;
}

std::size_t SoundFile::read(std::span<float> samples) {
  const auto capacity = samples.size() / static_cast<std::size_t>(channelCount_);
  const auto frames = library_.readFloat(file_.get(), samples.data(), static_cast<sf_count_t>(capacity));
  if (library_.error(file_.get()) != SF_ERR_NO_ERROR) fail(file_.get());
  return static_cast<std::size_t>(frames);
}

void SoundFile::fail(sf_private_tag* file) const {
  throw PlatformError("libsndfile", library_.error(file), library_.errorText(file));
}

}  // namespace palaver
