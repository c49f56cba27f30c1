// Speech analysis by SpeechAnalyzer of macOS 26.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/SpeechAnalysis.h"

namespace palaver {

class PendingAnswers;

// Only for macOS 26 or later; before it only isTranscriberAvailable() may be called. As thin as the framework
// lets it be. What it adds:
// - The results are read from the moment an analyzer is made, for those that nobody reads are lost.
// - An analyzer that was never fed is cancelled when it is to finish: finalizing may never return then.
// - An analyzer whose preparation fails is cancelled, for it would go on counting against the few that the
//   system allows at once.
// - Only audio in the format that the analyzer was prepared for is fed: other sample types end the process.
//
// Completions are called on threads of Swift. They are destroyed with this object; an operation that answers
// later still is harmless.
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
  // Asking also reserves the locale for this program (Apple's documentation of
  // assetInstallationRequest(supporting:)).
  void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                UniqueFunction<void(InstallationRequest)> completion) override;

 private:
  class Transcriber;
  class Feed;
  class Analyzer;
  class Input;
  class Installation;

  const std::shared_ptr<PendingAnswers> pending_;
};

}  // namespace palaver
