// Reads sound files as 16 kHz mono audio.
#pragma once

#include <memory>
#include <string>

#include "platform/audio/SampleFormat.h"
#include "platform/audio/SoundSource.h"

namespace palaver {

// Reads WAV files of any rate and channel count, and every other container that libsndfile supports where
// that is installed. Mixes to mono and resamples block by block, so memory use is independent of length. A
// name ending in ".raw" is headerless little-endian signed 16-bit audio.
class SoundFileSource final : public SoundSource {
 public:
  // Opens the file. Throws std::runtime_error with the path and the reason when the file is missing, empty or
  // not a sound file.
  explicit SoundFileSource(const std::string& path, const RawFormat& raw = {});
  ~SoundFileSource() override;

  std::size_t read(std::span<std::int16_t> frames) override;
  std::int64_t length() const override;

 private:
  class Reader;
  std::unique_ptr<Reader> reader_;
};

}  // namespace palaver
