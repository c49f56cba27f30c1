// Sound files as 16 kHz mono audio.
#pragma once

#include <memory>
#include <string>

#include "cli/SoundSource.h"

namespace palaver::host {

// Any container, rate and number of channels that libsndfile reads, mixed down to mono and resampled block by
// block, so that a file of any length takes the same memory. A name that ends in ".raw" is headerless 16 kHz
// mono little-endian signed 16-bit audio.
class SoundFileSource final : public SoundSource {
 public:
  // Opens the file. Throws std::runtime_error, with the path and the reason, for a file that is missing,
  // empty or no sound file.
  explicit SoundFileSource(const std::string& path);
  ~SoundFileSource() override;

  std::size_t read(std::span<std::int16_t> frames) override;
  std::int64_t length() const override;

 private:
  class Reader;
  std::unique_ptr<Reader> reader_;
};

}  // namespace palaver::host
