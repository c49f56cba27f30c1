// Simulates speech analysis by script: delivers scripted results at scripted times and records its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/SpeechAnalysis.h"
#include "simulator/machine/Timeline.h"

namespace palaver {

// Duration of an operation (ms, none: it never completes), and its error, if it fails.
struct SimulatedOperation {
  std::optional<double> takes = 0;
  std::optional<PlatformError> error = std::nullopt;
  bool answersInsideCall = false;  // completes synchronously, without the timeline
};

// Results of an analyzer without a script. Every result of one utterance covers the range from `start`
// to `end` (s).
struct SimulatedAnalysisUtterance {
  struct Partial {
    double afterAudio;  // audio received, ms
    std::string text;
  };
  std::vector<Partial> partials;
  std::string finalText;             // empty: use the newest partial
  std::optional<double> finalAfter;  // audio received, ms; none: when the input is finished
  double start = 0;
  double end = 0;
};

// State of the analysis service and of the machine's models.
struct AnalysisState {
  bool isAvailable = true;
  // Supported locales: requested identifier to served identifier.
  std::map<std::string, std::string, std::less<>> locales{{"ja-JP", "ja_JP"}};
  SimulatedOperation localeLookup;  // cannot fail
  AssetStatus model = AssetStatus::installed;
  SimulatedOperation modelLookup;  // cannot fail
  SimulatedOperation installationRequest;
  SimulatedOperation download;
  AssetStatus modelAfterDownload = AssetStatus::installed;
  // Preferred input format of analyzers.
  std::optional<AudioFormat> format = AudioFormat{CommonFormat::int16, 16000, 1, true};
  SimulatedOperation formatLookup;  // cannot fail
  SimulatedOperation prepare;
  SimulatedOperation finalize;
  SimulatedOperation cancel;  // cannot fail
  std::vector<SimulatedAnalysisUtterance> utterances;
};

// Records the input of one analyzer.
struct RecordedAnalysis {
  struct Buffer {
    AudioFormat format;
    std::uint32_t frames;
    std::int16_t firstSample;  // 0 for an empty buffer or another sample type
  };

  std::string locale;  // the supported locale
  std::vector<std::string> contextualStrings;
  std::optional<AudioFormat> preparedFor;
  std::vector<Buffer> buffers;     // accepted buffers
  std::size_t droppedBuffers = 0;  // buffers after the end of the input
  double madeAt = 0;               // ms since the start, as are all times here
  std::optional<double> inputFinishedAt;
  std::optional<double> finalizedAt;  // time of the call
  std::optional<double> cancelledAt;  // time of the call
};

// Any thread, as far as the contract allows. Completions are called on the timeline, without a lock held. The
// timeline must outlive all objects created here.
class SimulatedSpeechAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  SimulatedSpeechAnalysis(Timeline& timeline, AnalysisState state);
  ~SimulatedSpeechAnalysis() override;

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

  AnalysisState state() const;
  void setState(AnalysisState state);

  // Appends a result, the end of the results or an error to an analyzer's results, `delay` ms from now.
  // Analyzers are numbered from 1 in the order of their creation. 0 is the newest. Returns false when there
  // is no such analyzer.
  bool emit(std::size_t analyzer, NextResult result, double delay = 0);

  // Destroys all completions that have not been called, which may post work.
  void abandon();

  // Returns copies of the records of all analyzers so far, in the order of their creation.
  std::vector<RecordedAnalysis> analyses() const;

 private:
  class Service;
  class Analysis;
  class Transcriber;
  class Input;
  class Analyzer;
  class Installation;

  std::shared_ptr<Service> service_;
};

}  // namespace palaver
