// Opens sound files with libsndfile.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/PlatformError.h"
#include "platform/audio/SampleReader.h"

// As declared by <sndfile.h>.
struct sf_private_tag;

namespace palaver {

struct SndfileLibrary;

// A file open for reading, in any container that libsndfile knows. Throws PlatformError of domain
// "libsndfile".
class SoundFile final : public SampleReader {
 public:
  // Reads with the system's library. Throws when it is not installed.
  explicit SoundFile(const std::string& path);
  SoundFile(const std::string& path, const SndfileLibrary& library);

  int sampleRate() const override { return sampleRate_; }
  int channelCount() const override { return channelCount_; }
  std::int64_t length() const override { return length_; }
  std::size_t read(std::span<float> samples) override;

 private:
  [[noreturn]] void fail(sf_private_tag* file) const;

  const SndfileLibrary& library_;
  std::unique_ptr<sf_private_tag, std::function<void(sf_private_tag*)>> file_;
  int sampleRate_ = 0;
  int channelCount_ = 0;
  std::int64_t length_ = 0;
};

}  // namespace palaver
