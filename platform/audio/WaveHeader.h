// Reads the headers of WAV files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>

#include "platform/audio/SampleFormat.h"

namespace palaver {

// Says why bytes are no WAV file that can be read, as the end of a sentence: "it has no channels".
struct WaveError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reports an encoding that decodeSamples() does not know, such as A-law.
struct UnknownWaveEncoding : WaveError {
  using WaveError::WaveError;
};

struct WaveHeader {
  SampleFormat format;
  std::size_t dataOffset = 0;              // bytes from the start of the file to the first sample
  std::optional<std::uint64_t> dataBytes;  // none: all up to the end, as a writer to a pipe states it
};

// The samples have to begin within so many bytes. Pictures and texts may precede them.
inline constexpr std::size_t maxWaveHeaderBytes = std::size_t{16} << 20;

// Returns whether a file that begins so is one of the RIFF family for WAVE: RIFF, RF64 or BW64. Any thread.
bool isWave(std::span<const std::uint8_t> firstBytes);

// Parses the beginning of a WAV file: the chunks up to the samples. Returns none when more bytes are needed.
// Reads PCM of 8 to 32 bits and floats of 32 and 64, also as WAVE_FORMAT_EXTENSIBLE. The layout is that of
// RIFF WAVE as Microsoft and IBM published it in 1991, RF64's that of EBU Tech 3306.
// Throws WaveError. Any thread.
std::optional<WaveHeader> parseWaveHeader(std::span<const std::uint8_t> bytes);

}  // namespace palaver
