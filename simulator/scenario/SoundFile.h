// Creates sound files for tests.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace palaver {

struct SoundFileDescription {
  std::string container = "wav";   // "wav", "flac", "aiff" or "ogg" (Vorbis)
  std::string encoding = "int16";  // "int16", "int24" or "float"; the encoder's own for "ogg"
  int sampleRate = 16000;          // Hz
  int channels = 1;
  std::int64_t frames = 0;
  double loudness = 0;  // root mean square, full scale 1; equal in all channels
};

// Throws std::runtime_error when the file cannot be written.
void writeSoundFile(const std::filesystem::path& path, const SoundFileDescription& description);

}  // namespace palaver
