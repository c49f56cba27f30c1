// Implements the contract with AVAudioFile.
#pragma once

#include "platform/AudioFile.h"

namespace palaver {

// The system selects the file format by the extension of the file's name.
class AppleAudioFiles final : public AudioFiles {
 public:
  std::unique_ptr<AudioFile> openForReading(const std::string& path) override;
};

}  // namespace palaver
