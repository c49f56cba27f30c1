// Stream-based speech analysis: an analyzer fed by an input stream, a transcriber whose results are read one
// by one, and the inventory of models. Shaped as SpeechAnalyzer, SpeechTranscriber and AssetInventory of
// macOS 26.
//
// Threads: every call may be made on any thread, but calls on one object never overlap. Each completion is
// called exactly once, on any thread, perhaps from inside the call, perhaps never (then it is destroyed with
// the platform).
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

// Where the model of a transcriber stands, lowest first.
enum class AssetStatus { unsupported, supported, downloading, installed };

// The status as text: the name of its case.
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

// progressiveTranscription: volatile results as early as possible, each stretch finalised later.
enum class TranscriberPreset { progressiveTranscription };

struct TranscriptionResult {
  std::string text;  // plain characters, UTF-8
  // The stretch of audio, in seconds from the first sample fed to the analyzer. May be NaN or infinite.
  double rangeStart = 0;
  double rangeEnd = 0;
  bool isFinal = false;
};

struct EndOfResults {};      // the analysis has ended, and all results have been read
struct ResultsCancelled {};  // cancelResults() was called, or the analysis was cancelled

using NextResult = std::variant<TranscriptionResult, EndOfResults, ResultsCancelled, PlatformError>;

// Answers of an operation that may fail.
using FallibleCompletion = UniqueFunction<void(std::optional<PlatformError>)>;

// A module that turns speech into text, for one analyzer.
class SpeechTranscriber {
 public:
  virtual ~SpeechTranscriber() = default;

  // Asks for the next result, in the order in which the platform emits them. Not called again before its
  // completion, nor after it has answered with anything but a result.
  virtual void nextResult(UniqueFunction<void(NextResult)> completion) = 0;

  // Makes a waiting nextResult() and all later ones answer ResultsCancelled.
  virtual void cancelResults() = 0;

 protected:
  SpeechTranscriber() = default;
  SpeechTranscriber(const SpeechTranscriber&) = default;
  SpeechTranscriber& operator=(const SpeechTranscriber&) = default;
};

// The producer's end of an analyzer's unbounded input stream.
class AnalyzerInput {
 public:
  virtual ~AnalyzerInput() = default;

  // Adds audio in the analyzer's format, right behind what was added before. Dropped after finish(). The
  // buffer is not changed any more.
  virtual void yield(std::shared_ptr<const PCMBuffer> buffer) = 0;

  // No more audio.
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

  // Analyses what is left of the finished input, finalises all results and ends the analysis.
  virtual void finalizeAndFinishThroughEndOfInput(FallibleCompletion completion) = 0;

  // Ends the analysis at once and drops what is not final.
  virtual void cancelAndFinishNow(UniqueFunction<void()> completion) = 0;

 protected:
  SpeechAnalyzer() = default;
  SpeechAnalyzer(const SpeechAnalyzer&) = default;
  SpeechAnalyzer& operator=(const SpeechAnalyzer&) = default;
};

// The download of a model.
class AssetInstallationRequest {
 public:
  virtual ~AssetInstallationRequest() = default;

  virtual void downloadAndInstall(FallibleCompletion completion) = 0;

 protected:
  AssetInstallationRequest() = default;
  AssetInstallationRequest(const AssetInstallationRequest&) = default;
  AssetInstallationRequest& operator=(const AssetInstallationRequest&) = default;
};

// The models on this machine.
class AssetInventory {
 public:
  virtual ~AssetInventory() = default;

  virtual void status(const std::shared_ptr<SpeechTranscriber>& transcriber,
                      UniqueFunction<void(AssetStatus)> completion) = 0;

  // What it takes to install the transcriber's model: a request, or null when there is nothing to install.
  using InstallationRequest = std::variant<std::shared_ptr<AssetInstallationRequest>, PlatformError>;
  virtual void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                        UniqueFunction<void(InstallationRequest)> completion) = 0;

 protected:
  AssetInventory() = default;
  AssetInventory(const AssetInventory&) = default;
  AssetInventory& operator=(const AssetInventory&) = default;
};

// The analysis service as a whole.
class SpeechAnalysis {
 public:
  virtual ~SpeechAnalysis() = default;

  // Whether this machine can transcribe at all. Cheap.
  virtual bool isTranscriberAvailable() const = 0;

  // The identifier of the supported locale that is closest to the given one, or none.
  virtual void supportedLocale(std::string_view equivalentTo,
                               UniqueFunction<void(std::optional<std::string>)> completion) = 0;

  // For a locale that supportedLocale() gave.
  virtual std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view supportedLocale,
                                                             TranscriberPreset preset) = 0;

  // The format that the analyzer wants its input in, or none.
  virtual void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>& compatibleWith,
                                        UniqueFunction<void(std::optional<AudioFormat>)> completion) = 0;

  struct AnalyzerWithInput {
    std::shared_ptr<SpeechAnalyzer> analyzer;
    std::shared_ptr<AnalyzerInput> input;
  };
  // An analyzer of one module, reading from a new input stream. `contextualStrings`: phrases to prefer, at
  // most 100.
  virtual AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                         const std::vector<std::string>& contextualStrings) = 0;

  virtual AssetInventory& assetInventory() = 0;

 protected:
  SpeechAnalysis() = default;
  SpeechAnalysis(const SpeechAnalysis&) = default;
  SpeechAnalysis& operator=(const SpeechAnalysis&) = default;
};

}  // namespace palaver
