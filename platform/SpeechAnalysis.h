// Analyzes speech as a stream: an analyzer fed by an input stream, a transcriber whose results are read
// one by one, and the inventory of models. Modelled on SpeechAnalyzer, SpeechTranscriber and
// AssetInventory of macOS 26.
//
// Any thread may call. Calls on SpeechAnalysis and on AssetInventory may overlap, because every channel uses
// the same two objects. Calls on one transcriber, analyzer, input or installation request never do. Each
// completion is called at most once, on any thread, possibly inside the call. A completion that is never
// called is destroyed with the platform.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"
#include "platform/UniqueFunction.h"

namespace palaver {

// Installation status of a transcriber's model, lowest first.
enum class AssetStatus { unsupported, supported, downloading, installed };

// Returns the name of the enumerator.
constexpr std::string_view wireName(AssetStatus status) {
  switch (status) {
    case AssetStatus::unsupported:
      return "unsupported";
    case AssetStatus::supported:
      return "supported";
    case AssetStatus::downloading:
      return "downloading";
    case AssetStatus::installed:
      return "installed";
  }
  return "unknown";
}

// progressiveTranscription: volatile results as early as possible, finalized later range by range.
enum class TranscriberPreset { progressiveTranscription };

struct TranscriptionResult {
  std::string text;  // plain characters, UTF-8
  // Range of the audio, in seconds from the first sample fed to the analyzer. May be NaN or infinite.
  double rangeStart = 0;
  double rangeEnd = 0;
  bool isFinal = false;
};

struct EndOfResults {};      // the analysis has ended, and all results have been read
struct ResultsCancelled {};  // cancelResults() was called, or the analysis was cancelled

using NextResult = std::variant<TranscriptionResult, EndOfResults, ResultsCancelled, PlatformError>;

// Completes an operation that may fail.
using FallibleCompletion = UniqueFunction<void(std::optional<PlatformError>)>;

// Turns speech into text, as a module of one analyzer.
class SpeechTranscriber {
 public:
  virtual ~SpeechTranscriber() = default;

  // Requests the next result, in the order in which the platform emits them. Must not be called again before
  // its completion, nor after a completion with anything but a result.
  virtual void nextResult(UniqueFunction<void(NextResult)> completion) = 0;

  // Completes the pending nextResult() and all later ones with ResultsCancelled.
  virtual void cancelResults() = 0;

 protected:
  SpeechTranscriber() = default;
  SpeechTranscriber(const SpeechTranscriber&) = default;
  SpeechTranscriber& operator=(const SpeechTranscriber&) = default;
};

// Feeds an analyzer's unbounded input stream.
class AnalyzerInput {
 public:
  virtual ~AnalyzerInput() = default;

  // Appends audio in the analyzer's format. The buffer must not change any more. Dropped after finish().
  virtual void yield(std::shared_ptr<const PCMBuffer> buffer) = 0;

  // Ends the audio.
  virtual void finish() = 0;

 protected:
  AnalyzerInput() = default;
  AnalyzerInput(const AnalyzerInput&) = default;
  AnalyzerInput& operator=(const AnalyzerInput&) = default;
};

class SpeechAnalyzer {
 public:
  virtual ~SpeechAnalyzer() = default;

  // Loads what the analysis of audio in this format needs.
  virtual void prepareToAnalyze(const AudioFormat& format, FallibleCompletion completion) = 0;

  // Analyzes the rest of the finished input, finalizes all results and ends the analysis.
  virtual void finalizeAndFinishThroughEndOfInput(FallibleCompletion completion) = 0;

  // Ends the analysis immediately and drops unfinalized results.
  virtual void cancelAndFinishNow(UniqueFunction<void()> completion) = 0;

 protected:
  SpeechAnalyzer() = default;
  SpeechAnalyzer(const SpeechAnalyzer&) = default;
  SpeechAnalyzer& operator=(const SpeechAnalyzer&) = default;
};

// Downloads a model.
class AssetInstallationRequest {
 public:
  virtual ~AssetInstallationRequest() = default;

  virtual void downloadAndInstall(FallibleCompletion completion) = 0;

 protected:
  AssetInstallationRequest() = default;
  AssetInstallationRequest(const AssetInstallationRequest&) = default;
  AssetInstallationRequest& operator=(const AssetInstallationRequest&) = default;
};

// Lists and installs the models on this machine.
class AssetInventory {
 public:
  virtual ~AssetInventory() = default;

  virtual void status(const std::shared_ptr<SpeechTranscriber>& transcriber,
                      UniqueFunction<void(AssetStatus)> completion) = 0;

  // A request that installs the transcriber's model, or null when there is nothing to install.
  using InstallationRequest = std::variant<std::shared_ptr<AssetInstallationRequest>, PlatformError>;
  virtual void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                        UniqueFunction<void(InstallationRequest)> completion) = 0;

 protected:
  AssetInventory() = default;
  AssetInventory(const AssetInventory&) = default;
  AssetInventory& operator=(const AssetInventory&) = default;
};

// Creates the objects of an analysis.
class SpeechAnalysis {
 public:
  virtual ~SpeechAnalysis() = default;

  // Returns whether this machine can transcribe at all. Cheap.
  virtual bool isTranscriberAvailable() const = 0;

  // Finds the identifier of the supported locale closest to the given one. Completes with none if
  // there is none.
  virtual void supportedLocale(std::string_view equivalentTo,
                               UniqueFunction<void(std::optional<std::string>)> completion) = 0;

  // Creates a transcriber for a locale returned by supportedLocale().
  virtual std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view supportedLocale,
                                                             TranscriberPreset preset) = 0;

  // Finds the analyzer's preferred input format. Completes with none if there is none.
  virtual void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>& compatibleWith,
                                        UniqueFunction<void(std::optional<AudioFormat>)> completion) = 0;

  struct AnalyzerWithInput {
    std::shared_ptr<SpeechAnalyzer> analyzer;
    std::shared_ptr<AnalyzerInput> input;
  };
  // Creates an analyzer of one module that reads from a new input stream. `contextualStrings`: phrases to
  // prefer, at most 100.
  virtual AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                         const std::vector<std::string>& contextualStrings) = 0;

  virtual AssetInventory& assetInventory() = 0;

 protected:
  SpeechAnalysis() = default;
  SpeechAnalysis(const SpeechAnalysis&) = default;
  SpeechAnalysis& operator=(const SpeechAnalysis&) = default;
};

}  // namespace palaver
