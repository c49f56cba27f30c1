#include "worker/sherpa/StreamingModel.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <utility>

#include "worker/sherpa/Hotwords.h"
#include "worker/sherpa/Loudness.h"
#include "worker/sherpa/floatSamples.h"

namespace palaver {

namespace {

// Quiet audio that has to follow the last word, samples, so that a model that looks ahead yields it. What the
// audio lacks of it at its end is added as silence.
constexpr std::int64_t quietAtEnd = 4 * speechSampleRate / 5;

// Longest audio of one decoding step that is expected of a model, samples.
constexpr std::int64_t longestStep = 10 * speechSampleRate;

// Most streams that are decoded in one call. All of them wait for its end, and beyond this number a stream
// costs hardly less (docs/performance.md).
constexpr std::size_t largestBatch = 8;

class StreamingTranscriber final : public Transcriber {
 public:
  // `timeFactor` is what the library's times of tokens are multiplied by.
  StreamingTranscriber(const SherpaLibrary& library, const SherpaOnnxOnlineRecognizer* recognizer,
                       const std::string& hotwords, double timeFactor)
      : library_(library),
        recognizer_(recognizer),
        timeFactor_(timeFactor),
        stream_(hotwords.empty() ? library.CreateOnlineStream(recognizer)
                                 : library.CreateOnlineStreamWithHotwords(recognizer, hotwords.c_str()),
                library.DestroyOnlineStream) {
    if (!stream_) throw sherpaError(sherpaEngineFailed, "The speech engine refuses a stream");
  }

  const SherpaOnnxOnlineStream* stream() const { return stream_.get(); }

  void append(std::span<const std::int16_t> samples) override {
    accept(floatSamples(samples));
    loudness_.append(samples);
    if (!voiceStart_ && loudness_.voiceStart(0) < length()) voiceStart_ = loudness_.voiceStart(0);
    loudness_.forgetBefore(length() - quietAtEnd);
  }

  void endAudio() override {
    isEnded_ = true;
    if (length() == 0) return;
    const auto quiet = length() - loudness_.voiceEnd(std::max<std::int64_t>(0, length() - quietAtEnd));
    if (quiet < quietAtEnd) accept(std::vector<float>(static_cast<std::size_t>(quietAtEnd - quiet)));
    library_.OnlineStreamInputFinished(stream_.get());
    updateReady();
  }

  // What is not decoded waits with the sender.
  bool wantsAudio() const override { return !isReady_; }
  bool hasWork() const override { return isReady_; }

  void work() override {
    // Not ready any more when it was in a batch that failed.
    if (library_.IsOnlineStreamReady(recognizer_, stream_.get()) != 0)
      library_.DecodeOnlineStream(recognizer_, stream_.get());
    decoded();
  }

  // What has been given to the library since the newest step.
  std::int64_t stepLength() const override { return length() - decodedTo_; }

  // Call when the stream has been decoded.
  void decoded() {
    if (decodedTo_ < length()) newestStep_ = std::exchange(decodedTo_, length());
    updateReady();
    updateWords();
  }

  bool isFinished() const override { return isEnded_ && !isReady_; }
  std::vector<SpokenWord> words() const override { return words_; }
  std::int64_t length() const override { return loudness_.length(); }

 private:
  void accept(const std::vector<float>& audio) {
    library_.OnlineStreamAcceptWaveform(stream_.get(), speechSampleRate, audio.data(),
                                        static_cast<std::int32_t>(audio.size()));
    updateReady();
  }

  void updateReady() { isReady_ = library_.IsOnlineStreamReady(recognizer_, stream_.get()) != 0; }

  void updateWords() {
    const std::unique_ptr<const SherpaOnnxOnlineRecognizerResult,
                          decltype(library_.DestroyOnlineRecognizerResult)>
        result(library_.GetOnlineStreamResult(recognizer_, stream_.get()),
               library_.DestroyOnlineRecognizerResult);
    if (!result || !result->text) return;
    if (result->timestamps) {
      words_ = withoutNoise(wordsOfResult(result->text, result->tokens_arr, result->timestamps, result->count,
                                          length(), timeFactor_));
      return;
    }
    // Without times of tokens a new word lies in the audio of the step that yielded it, the first one from
    // where the voice starts.
    const auto from = untimedWords_.empty() ? voiceStart_.value_or(0) : newestStep_;
    untimedWords_ = wordsOfGrowingText(result->text, untimedWords_, from, length());
    words_ = withoutNoise(untimedWords_);
  }

  const SherpaLibrary& library_;
  const SherpaOnnxOnlineRecognizer* const recognizer_;
  const double timeFactor_;
  const std::unique_ptr<const SherpaOnnxOnlineStream, decltype(SherpaLibrary::DestroyOnlineStream)> stream_;
  Loudness loudness_;
  std::optional<std::int64_t> voiceStart_;
  std::int64_t decodedTo_ = 0;
  std::int64_t newestStep_ = 0;  // where the newest step that had new audio started
  bool isReady_ = false;         // the stream has enough audio for a step
  bool isEnded_ = false;
  std::vector<SpokenWord> words_;
  std::vector<SpokenWord> untimedWords_;  // with noise, of a model without times
};

}  // namespace

StreamingModel::StreamingModel(std::shared_ptr<const SherpaLibrary> library, const SherpaModel& model)
    : library_(std::move(library)), letterCase_(model.letterCase), language_(model.promptLanguage) {
  SherpaOnnxOnlineRecognizerConfig config{};
  config.feat_config = {.sample_rate = speechSampleRate, .feature_dim = 80};
  config.decoding_method = "greedy_search";
  auto& models = config.model_config;
  models.tokens = model.tokens.c_str();
  models.num_threads = 1;
  models.provider = "cpu";
  switch (model.kind) {
    case SherpaModelKind::onlineTransducer: {
      models.transducer = {model.encoder.c_str(), model.decoder.c_str(), model.joiner.c_str()};
      // Without a type the library loads the encoder twice.
      if (!model.transducerType.empty()) models.model_type = model.transducerType.c_str();
      const auto unit = hotwordUnit(model);
      takesHotwords_ = !unit.empty();
      if (!takesHotwords_) break;
      models.modeling_unit = unit.data();
      // The library needs the vocabulary for word pieces, and dereferences null without it.
      if (!model.bpeVocabulary.empty()) models.bpe_vocab = model.bpeVocabulary.c_str();
      config.decoding_method = "modified_beam_search";
      config.max_active_paths = 4;
      config.hotwords_score = hotwordScore;
      break;
    }
    case SherpaModelKind::onlineZipformerCTC:
      models.zipformer2_ctc.model = model.model.c_str();
      break;
    case SherpaModelKind::onlineNeMoCTC:
      models.nemo_ctc.model = model.model.c_str();
      // The library takes a step for 4 frames, whatever the model's metadata states.
      if (model.subsamplingFactor != 0) timeFactor_ = static_cast<double>(model.subsamplingFactor) / 4;
      break;
    case SherpaModelKind::onlineParaformer:
      models.paraformer = {model.encoder.c_str(), model.decoder.c_str()};
      break;
    default:
      throw sherpaError(sherpaModelUnusable, "The speech model takes only whole utterances");
  }
  recognizer_ = library_->CreateOnlineRecognizer(&config);
  if (!recognizer_) throw refusedModel(model.tokens.parent_path());
  if (canDecodeTogether()) batchSize_ = largestBatch;
}

StreamingModel::~StreamingModel() {
  library_->DestroyOnlineRecognizer(recognizer_);
}

// Tries two streams of silence: a model may have been exported for one stream only.
bool StreamingModel::canDecodeTogether() {
  if (!library_->DecodeMultipleOnlineStreams) return false;
  try {
    StreamingTranscriber first(*library_, recognizer_, "", timeFactor_);
    StreamingTranscriber second(*library_, recognizer_, "", timeFactor_);
    const std::vector<std::int16_t> silence(speechSampleRate / 10);
    for (auto* const transcriber : {&first, &second})
      while (!transcriber->hasWork() && transcriber->length() < longestStep) transcriber->append(silence);
    if (!first.hasWork() || !second.hasWork()) return false;
    std::array streams{first.stream(), second.stream()};
    library_->DecodeMultipleOnlineStreams(recognizer_, streams.data(), streams.size());
    return true;
  } catch (...) {
    return false;
  }
}

std::unique_ptr<Transcriber> StreamingModel::transcribe(const std::vector<std::string>& phrases) {
  auto transcriber = std::make_unique<StreamingTranscriber>(
      *library_, recognizer_, takesHotwords_ ? hotwordsOf(phrases, letterCase_) : "", timeFactor_);
  if (!language_.empty())
    library_->OnlineStreamSetOption(transcriber->stream(), "language", language_.c_str());
  return transcriber;
}

std::vector<std::exception_ptr> StreamingModel::work(std::span<Transcriber* const> batch) {
  if (batch.size() == 1 || batchSize_ == 1) return LoadedModel::work(batch);
  std::vector<const SherpaOnnxOnlineStream*> streams;
  for (auto* const transcriber : batch)
    streams.push_back(static_cast<StreamingTranscriber*>(transcriber)->stream());
  try {
    library_->DecodeMultipleOnlineStreams(recognizer_, streams.data(),
                                          static_cast<std::int32_t>(streams.size()));
  } catch (...) {
    // The library does not report which one failed. It may have taken the audio of a step from the others,
    // whose words are lost then.
    batchSize_ = 1;
    return LoadedModel::work(batch);
  }
  return forEach(batch,
                 [](Transcriber& transcriber) { static_cast<StreamingTranscriber&>(transcriber).decoded(); });
}

}  // namespace palaver
