// Implements the contracts of services that this system lacks: stream-based speech analysis with its reading
// of sound files, and the attribution of what a process does to the app that started it.
#pragma once

#include "platform/AudioConverter.h"
#include "platform/AudioFile.h"
#include "platform/Responsibility.h"
#include "platform/SpeechAnalysis.h"

namespace palaver {

// Reports itself as unavailable. The helper calls nothing else of it on such a system.
class AbsentSpeechAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  bool isTranscriberAvailable() const override { return false; }
  void supportedLocale(std::string_view,
                       UniqueFunction<void(std::optional<std::string>)> completion) override {
    completion(std::nullopt);
  }
  std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view, TranscriberPreset) override {
    return nullptr;
  }
  void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>&,
                                UniqueFunction<void(std::optional<AudioFormat>)> completion) override {
    completion(std::nullopt);
  }
  AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>&,
                                 const std::vector<std::string>&) override {
    return {};
  }
  AssetInventory& assetInventory() override { return *this; }

  void status(const std::shared_ptr<SpeechTranscriber>&,
              UniqueFunction<void(AssetStatus)> completion) override {
    completion(AssetStatus::unsupported);
  }
  void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>&,
                                UniqueFunction<void(InstallationRequest)> completion) override {
    completion(PlatformError("PalaverSTT", -1, "Speech analysis is not available on this system"));
  }
};

class AbsentAudioConverters final : public AudioConverters {
 public:
  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat&, const AudioFormat&) override {
    return nullptr;
  }
};

class AbsentAudioFiles final : public AudioFiles {
 public:
  std::unique_ptr<AudioFile> openForReading(const std::string&) override {
    throw PlatformError("PalaverSTT", -1, "Sound files cannot be read on this system");
  }
};

class AbsentResponsibility final : public Responsibility {
 public:
  SetDisclaim findSetDisclaim() const override { return nullptr; }
  std::optional<std::string> executablePath() const override { return std::nullopt; }
};

}  // namespace palaver
