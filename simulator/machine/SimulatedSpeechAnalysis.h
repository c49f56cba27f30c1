// Speech analysis by script: it answers what it is told, when it is told, and keeps what reached it.
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

// How long an operation takes (ms; none: it never answers), and how it fails, if it does.
struct SimulatedOperation {
  std::optional<double> takes = 0;
  std::optional<PlatformError> error = std::nullopt;
  bool answersInsideCall = false;  // takes no time, and is not even put on the timeline
};

// What an analyzer does by itself with its audio, for want of a script. Every result of one utterance covers
// the stretch from `start` to `end` (s).
struct SimulatedAnalysisUtterance {
  struct Partial {
    double afterAudio;  // ms of audio received
    std::string text;
  };
  std::vector<Partial> partials;
  std::string finalText;             // empty: the newest partial
  std::optional<double> finalAfter;  // ms of audio received; none: when the input is finished
  double start = 0;
  double end = 0;
};

// The state of the analysis service and of the machine's models.
struct AnalysisState {
  bool isAvailable = true;
  // Supported locales: the identifier asked for, and the one that serves it.
  std::map<std::string, std::string, std::less<>> locales{{"ja-JP", "ja_JP"}};
  SimulatedOperation localeLookup;  // cannot fail
  AssetStatus model = AssetStatus::installed;
  SimulatedOperation modelLookup;  // cannot fail
  SimulatedOperation installationRequest;
  SimulatedOperation download;
  AssetStatus modelAfterDownload = AssetStatus::installed;
  // The format that analyzers want.
  std::optional<AudioFormat> format = AudioFormat{CommonFormat::int16, 16000, 1, true};
  SimulatedOperation formatLookup;  // cannot fail
  SimulatedOperation prepare;
  SimulatedOperation finalize;
  SimulatedOperation cancel;  // cannot fail
  std::vector<SimulatedAnalysisUtterance> utterances;
};

// What reached one analyzer.
struct RecordedAnalysis {
  struct Buffer {
    AudioFormat format;
    std::uint32_t frames;
    std::int16_t firstSample;  // 0 for an empty buffer or another sample type
  };

  std::string locale;  // the supported one
  std::vector<std::string> contextualStrings;
  std::optional<AudioFormat> preparedFor;
  std::vector<Buffer> buffers;            // those taken
  std::size_t droppedBuffers = 0;         // those that came after the end of the input
  std::optional<double> inputFinishedAt;  // ms since the start, as are all times here
  std::optional<double> finalizedAt;      // when it was asked for
  std::optional<double> cancelledAt;      // when it was asked for
};

// Any thread, as far as the contract allows; completions are called on the timeline, without any lock held.
// The timeline must outlive everything made here.
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

  // Adds to the results of an analyzer `delay` ms from now: a result, their end or an error. Analyzers are
  // numbered from 1 as they are made; 0 is the newest. Returns false when there is no such analyzer.
  bool emit(std::size_t analyzer, NextResult result, double delay = 0);

  // Lets go of all who wait for an answer that has not come. They are destroyed, which may post work.
  void abandon();

  // Copies of what all analyzers have received so far, in the order in which they were made.
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
