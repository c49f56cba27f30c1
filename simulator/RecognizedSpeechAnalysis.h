// Speech analysis on top of a task-based recognizer, so that the analyzer backend can be tried with a real
// one where the platform has no analyzers.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/SpeechAnalysis.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

// An analyzer here is a recognizer and a sequence of its tasks, one for each stretch of speech. A task's
// partial results become volatile results; its final one, which a pause of 900 ms or the end of the input
// brings about, a final result. All results of one stretch start where its first word does.
//
// Everything runs on a thread of its own, which is the main thread in the eyes of the recognition. Input that
// is far ahead of the recognizer blocks in AnalyzerInput::yield().
class RecognizedSpeechAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  // `servedBy`: locales that another one's model serves, by the locale asked for. The recognition must
  // outlive this.
  RecognizedSpeechAnalysis(SpeechRecognition& recognition, std::map<std::string, std::string> servedBy);
  // Nothing that was made here may be used any more. Lets go of all who wait for an answer.
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
  // Nothing can be installed here: null, or an error when the model is missing.
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
