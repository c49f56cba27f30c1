#include "platform/audio/SndfileAudioFile.h"

#include <sndfile.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace palaver {

namespace {

constexpr const char* errorDomain = "libsndfile";

class SndfileAudioFile final : public AudioFile {
 public:
  using Handle = std::unique_ptr<SNDFILE, decltype(&sf_close)>;

  SndfileAudioFile(Handle file, const SF_INFO& info)
      : file_(std::move(file)),
        format_{CommonFormat::float32, static_cast<double>(info.samplerate),
                static_cast<std::uint32_t>(info.channels), false},
        length_(info.frames) {}

  const AudioFormat& processingFormat() const override { return format_; }
  std::int64_t length() const override { return length_; }
  std::int64_t framePosition() const override { return position_; }

  void read(PCMBuffer& buffer) override {
    if (buffer.format() != format_)
      throw PlatformError(errorDomain, -1, "The buffer has another format than the file");
    interleaved_.resize(std::size_t{buffer.frameCapacity()} * format_.channelCount);
    const auto frames = sf_readf_float(file_.get(), interleaved_.data(), buffer.frameCapacity());
    if (const int error = sf_error(file_.get()); error != SF_ERR_NO_ERROR)
      throw PlatformError(errorDomain, error, sf_strerror(file_.get()));
    for (std::uint32_t channel = 0; channel < format_.channelCount; ++channel)
      for (std::int64_t frame = 0; frame < frames; ++frame)
        buffer.floatChannelData(channel)[frame] =
            interleaved_[static_cast<std::size_t>(frame) * format_.channelCount + channel];
    buffer.setFrameLength(static_cast<std::uint32_t>(frames));
    position_ += frames;
  }

 private:
  Handle file_;
  const AudioFormat format_;
  const std::int64_t length_;
  std::int64_t position_ = 0;
  std::vector<float> interleaved_;
};

}  // namespace

std::unique_ptr<AudioFile> SndfileAudioFiles::openForReading(const std::string& path) {
  SF_INFO info{};
  SndfileAudioFile::Handle file(sf_open(path.c_str(), SFM_READ, &info), &sf_close);
  if (!file) throw PlatformError(errorDomain, sf_error(nullptr), sf_strerror(nullptr));
  return std::make_unique<SndfileAudioFile>(std::move(file), info);
}

}  // namespace palaver
