// Reads sound files. Modelled on AVAudioFile.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

// Reads an open file. Used by one thread at a time.
class AudioFile {
 public:
  virtual ~AudioFile() = default;

  // Returns the format of read(): 32-bit float, not interleaved, at the file's own rate and
  // number of channels.
  virtual const AudioFormat& processingFormat() const = 0;
  virtual std::int64_t length() const = 0;         // frames; an estimate for compressed files
  virtual std::int64_t framePosition() const = 0;  // the next frame to read

  // Fills the buffer (of the processing format) as far as possible and sets its frame length, 0 at the end of
  // the file. Throws PlatformError.
  virtual void read(PCMBuffer& buffer) = 0;

 protected:
  AudioFile() = default;
  AudioFile(const AudioFile&) = default;
  AudioFile& operator=(const AudioFile&) = default;
};

// Opens files. Any thread.
class AudioFiles {
 public:
  virtual ~AudioFiles() = default;

  // Throws PlatformError.
  virtual std::unique_ptr<AudioFile> openForReading(const std::string& path) = 0;

 protected:
  AudioFiles() = default;
  AudioFiles(const AudioFiles&) = default;
  AudioFiles& operator=(const AudioFiles&) = default;
};

}  // namespace palaver
