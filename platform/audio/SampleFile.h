// Reads WAV files and headerless samples, without a library.
#pragma once

#include <istream>
#include <memory>
#include <vector>

#include "platform/audio/SampleFormat.h"
#include "platform/audio/SampleReader.h"

namespace palaver {

// Reads uncompressed samples from a seekable stream. Trusts nothing that a header states: a length is bounded
// by that of the stream.
class SampleFile final : public SampleReader {
 public:
  // Reads the header of a WAV file. `size` is the stream's length in bytes. Throws WaveError.
  static SampleFile openWave(std::unique_ptr<std::istream> stream, std::uint64_t size);

  // Reads headerless samples.
  static SampleFile openRaw(std::unique_ptr<std::istream> stream, std::uint64_t size,
                            const RawFormat& format);

  int sampleRate() const override { return format_.sampleRate; }
  int channelCount() const override { return format_.channelCount; }
  std::int64_t length() const override { return length_; }
  std::size_t read(std::span<float> samples) override;

 private:
  SampleFile(std::unique_ptr<std::istream> stream, const SampleFormat& format, std::uint64_t dataBytes);

  std::unique_ptr<std::istream> stream_;  // at the next frame
  SampleFormat format_;
  std::int64_t length_;  // frames
  std::int64_t left_;    // frames
  std::vector<std::uint8_t> bytes_;
};

}  // namespace palaver
