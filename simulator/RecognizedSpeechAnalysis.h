// Implements speech analysis with a task-based recognizer. It lets the analyzer backend run with a real
// recognizer on platforms without analyzers.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/SpeechAnalysis.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

// Maps each analyzer to one recognizer and a sequence of its tasks, one per speech segment. Partial results
// of a task become volatile results. Its final result becomes a final result after a pause of 900 ms or at
// the end of the input. All results of a segment start at its first word.
//
// Runs on its own thread, which the recognition treats as the main thread. AnalyzerInput::yield() blocks when
// input is far ahead of the recognizer.
class RecognizedSpeechAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  // `servedBy` maps a requested locale to the locale whose model serves it. The recognition must outlive this
  // object.
  RecognizedSpeechAnalysis(SpeechRecognition& recognition, std::map<std::string, std::string> servedBy);
  // Releases every pending wait. Objects created here must not be used afterwards.
  ~RecognizedSpeechAnalysis() override;

  bool isTranscriberAvailable() const override { return true; }
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
  // Never installs anything: passes null, or an error when the model is missing.
  void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                UniqueFunction<void(InstallationRequest)> completion) override;

 private:
  class Service;
  class Analysis;
  class Transcriber;
  class Analyzer;
  class Input;

  const std::shared_ptr<Service> service_;
  const std::map<std::string, std::string> servedBy_;
};

}  // namespace palaver
