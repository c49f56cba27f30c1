// Reads sound files with libsndfile: WAV, AIFF, FLAC, Ogg, CAF and many more.
#pragma once

#include "platform/AudioFile.h"

namespace palaver {

class SndfileAudioFiles final : public AudioFiles {
 public:
  std::unique_ptr<AudioFile> openForReading(const std::string& path) override;
};

}  // namespace palaver
