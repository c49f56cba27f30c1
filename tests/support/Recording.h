// Reads the recordings of pocketsphinx-testdata: 16 kHz mono 16-bit, in WAVE files or headerless.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "platform/audio/SoundFileSource.h"

namespace palaver {

// Throws std::runtime_error when the file cannot be read.
inline std::vector<std::int16_t> readRecording(const std::filesystem::path& file) {
  SoundFileSource source(file.string());
  std::vector<std::int16_t> samples(static_cast<std::size_t>(source.length()));
  samples.resize(source.read(samples));
  return samples;
}

}  // namespace palaver
