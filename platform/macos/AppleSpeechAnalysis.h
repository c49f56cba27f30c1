// Implements speech analysis with SpeechAnalyzer of macOS 26.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/SpeechAnalysis.h"

namespace palaver {

class LocaleReservations;
class PendingAnswers;

// Requires macOS 26 or later. Before that only isTranscriberAvailable() may be called. A thin wrapper of the
// framework, which adds:
// - Results are read as soon as an analyzer is created, because results without a reader are lost.
// - An analyzer that was never fed is cancelled instead of finalized: finalizing might never return.
// - An analyzer whose preparation fails is cancelled. Otherwise it would keep counting against the few that
//   the system allows at the same time.
// - A supported locale is reserved for this program before it is returned. Otherwise the system reports its
// model as
//   missing. A failed reservation is not an error of its own.
// - Audio is fed only in the format that the analyzer was prepared for: other sample types end the process.
//
// Completions are called on Swift threads. They are destroyed with this object. An operation may complete
// later without harm.
class AppleSpeechAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  AppleSpeechAnalysis();
  ~AppleSpeechAnalysis() override;

  bool isTranscriberAvailable() const override;
  void supportedLocale(std::string_view equivalentTo,
                       UniqueFunction<void(std::optional<std::string>)> completion) override;
  std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view supportedLocale,
                                                     TranscriberPreset preset) override;
  void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>& compatibleWith,
                                UniqueFunction<void(std::optional<AudioFormat>)> completion) override;
  AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                 const std::vector<std::string>& contextualStrings) override;
  AssetInventory& assetInventory() override { return *this; }

  void status(const std::shared_ptr<SpeechTranscriber>& transcriber,
              UniqueFunction<void(AssetStatus)> completion) override;
  void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                UniqueFunction<void(InstallationRequest)> completion) override;

 private:
  class Transcriber;
  class Feed;
  class Analyzer;
  class Input;
  class Installation;

  const std::shared_ptr<PendingAnswers> pending_;
  const std::shared_ptr<LocaleReservations> reservations_;
};

}  // namespace palaver
