#include "platform/audio/SndfileAudioFile.h"

#include <span>
#include <utility>
#include <vector>

#include "platform/audio/SoundFile.h"

namespace palaver {

namespace {

class SndfileAudioFile final : public AudioFile {
 public:
  explicit SndfileAudioFile(SoundFile file)
      : file_(std::move(file)),
        format_{CommonFormat::float32, static_cast<double>(file_.sampleRate()),
                static_cast<std::uint32_t>(file_.channelCount()), false} {}

  const AudioFormat& processingFormat() const override { return format_; }
  std::int64_t length() const override { return file_.length(); }
  std::int64_t framePosition() const override { return position_; }

  void read(PCMBuffer& buffer) override {
    if (buffer.format() != format_)
      throw PlatformError("libsndfile", -1, "The buffer has another format than the file");
    interleaved_.resize(std::size_t{buffer.frameCapacity()} * format_.channelCount);
    const auto frames = file_.read(interleaved_);
    for (std::uint32_t channel = 0; channel < format_.channelCount; ++channel)
      for (std::size_t frame = 0; frame < frames; ++frame)
        buffer.floatChannelData(channel)[frame] = interleaved_[frame * format_.channelCount + channel];
    buffer.setFrameLength(static_cast<std::uint32_t>(frames));
    position_ += static_cast<std::int64_t>(frames);
  }

 private:
  SoundFile file_;
  const AudioFormat format_;
  std::int64_t position_ = 0;
  std::vector<float> interleaved_;
};

}  // namespace

std::unique_ptr<AudioFile> SndfileAudioFiles::openForReading(const std::string& path) {
  return std::make_unique<SndfileAudioFile>(SoundFile(path));
}

}  // namespace palaver
