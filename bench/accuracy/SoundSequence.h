// Plays several recordings one after another as one source of audio.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/audio/SoundFileSource.h"

namespace palaver::accuracy {

// Plays the files with silence before the first, between them and after the last. Opens them one by one.
class SoundSequence final : public SoundSource {
 public:
  // `pause`: 16 kHz frames of silence. Throws std::runtime_error when a file cannot be read.
  SoundSequence(std::vector<std::string> paths, std::int64_t pause);

  std::size_t read(std::span<std::int16_t> frames) override;
  std::int64_t length() const override;

  // Returns the start of each file in 16 kHz frames. The last entry is where the next file would start.
  const std::vector<std::int64_t>& starts() const { return starts_; }

 private:
  std::size_t readSome(std::span<std::int16_t> frames);

  std::vector<std::string> paths_;
  std::vector<std::int64_t> starts_;
  std::int64_t position_ = 0;  // frames delivered
  std::size_t next_ = 0;       // current or next file
  std::unique_ptr<SoundFileSource> playing_;
};

}  // namespace palaver::accuracy
