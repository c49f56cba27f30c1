// Transcribes one audio stream of one session with the platform's analyzer.
#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <asio/strand.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "analyzer/BufferConverter.h"
#include "analyzer/SerialPromise.h"
#include "core/AudioSource.h"
#include "core/JSONLineWriter.h"
#include "platform/Platform.h"
#include "platform/SpeechAnalysis.h"

namespace palaver {

// Runs its jobs one at a time.
using SerialExecutor = asio::strand<asio::any_io_executor>;

// Every function runs on the channel's serial executor, and so does the result loop. Coroutines that call
// these functions must run there too.
class SpeechAnalyzerChannel : public std::enable_shared_from_this<SpeechAnalyzerChannel> {
 public:
  // Prepares an analyzer and starts its result loop. `vocabulary`: at most 100 phrases. Throws PlatformError
  // of domain "PalaverSTT": 10 for an unsupported locale, 11 when the model is not installed, 12 when the
  // analyzer has no audio format. Also throws the platform's own error from preparing.
  static asio::awaitable<std::shared_ptr<SpeechAnalyzerChannel>> make(
      SerialExecutor executor, Platform& platform, JSONLineWriter& writer, std::string sessionId,
      AudioSource source, std::string localeIdentifier, std::vector<std::string> vocabulary);
  ~SpeechAnalyzerChannel();
  SpeechAnalyzerChannel(const SpeechAnalyzerChannel&) = delete;
  SpeechAnalyzerChannel& operator=(const SpeechAnalyzerChannel&) = delete;

  // Feeds one buffer. `capturedAt`: capture time of its first sample, ms. Only that of the first buffer
  // counts, because the analyzer's timeline is the plain concatenation of all audio. After finish() or
  // cancel() the audio is dropped. Throws BufferConverter::ConversionError. The channel stays usable.
  void append(const std::shared_ptr<const PCMBuffer>& buffer, double capturedAt);

  // Ends the audio. Returns when every final result has been written. Throws the platform's error.
  asio::awaitable<void> finish();

  // Cancels the analysis. No more results are written.
  asio::awaitable<void> cancel();

 private:
  struct Parts;  // the objects that make() prepared

  explicit SpeechAnalyzerChannel(Parts parts);

  static asio::awaitable<void> runResultLoop(std::shared_ptr<SpeechAnalyzerChannel> channel);
  void write(const TranscriptionResult& result);

  const SerialExecutor executor_;
  Platform& platform_;
  JSONLineWriter& writer_;
  const std::string sessionId_;
  const AudioSource source_;
  const std::shared_ptr<SpeechTranscriber> transcriber_;
  const std::shared_ptr<SpeechAnalyzer> analyzer_;
  const std::shared_ptr<AnalyzerInput> input_;
  const AudioFormat analyzerFormat_;
  const std::string
      epoch_;  // distinguishes this channel's utterances from those of earlier channels of the same stream
  BufferConverter converter_;
  std::optional<double> baseCapturedAt_;  // capture time of the first sample ever fed, ms
  bool cancelled_ = false;
  SerialPromise<bool> resultLoopEnded_;
};

}  // namespace palaver
