// Opens sound files with libsndfile.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/PlatformError.h"

// As declared by <sndfile.h>.
struct sf_private_tag;

namespace palaver {

// A file open for reading. Used by one thread at a time. Throws PlatformError of domain "libsndfile".
class SoundFile {
 public:
  // Reads any container. `headerless`: 16 kHz mono little-endian signed 16-bit samples instead.
  explicit SoundFile(const std::string& path, bool headerless = false);

  int sampleRate() const { return sampleRate_; }  // Hz
  int channelCount() const { return channelCount_; }
  std::int64_t length() const {
    return length_;
  }  // frames, as the header says; estimated for some containers

  // Reads the next frames, interleaved, full scale 1. `samples`: whole frames. Returns the frames read, fewer
  // only at the end.
  std::size_t read(std::span<float> samples);

 private:
  struct Close {
    void operator()(sf_private_tag* file) const;
  };

  std::unique_ptr<sf_private_tag, Close> file_;
  int sampleRate_ = 0;
  int channelCount_ = 0;
  std::int64_t length_ = 0;
};

}  // namespace palaver
