// Reads the recordings of PocketSphinx's test data: 16 kHz mono 16-bit, with or without a WAVE header.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace palaver {

// Throws std::runtime_error when the file cannot be read.
inline std::vector<std::int16_t> readRecording(const std::filesystem::path& file) {
  constexpr std::size_t waveHeaderLength = 44;
  std::ifstream stream(file, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
  if (!stream || bytes.size() < waveHeaderLength)
    throw std::runtime_error("The recording " + file.string() + " cannot be read");
  const std::size_t start = bytes.starts_with("RIFF") ? waveHeaderLength : 0;
  std::vector<std::int16_t> samples((bytes.size() - start) / sizeof(std::int16_t));
  std::memcpy(samples.data(), bytes.data() + start, samples.size() * sizeof(std::int16_t));
  return samples;
}

}  // namespace palaver
