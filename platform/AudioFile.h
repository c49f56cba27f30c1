// Reading of sound files. Shaped as AVAudioFile.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

// An open file; used by one thread at a time.
class AudioFile {
 public:
  virtual ~AudioFile() = default;

  // What read() delivers: 32-bit float, not interleaved, at the file's own rate and number of channels.
  virtual const AudioFormat& processingFormat() const = 0;
  virtual std::int64_t length() const = 0;         // frames; an estimate for compressed files
  virtual std::int64_t framePosition() const = 0;  // the next frame to be read

  // Reads as many frames as fit into the buffer (of the processing format) and sets its frame length; 0 at
  // the end. Throws PlatformError.
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
