#include "worker/sherpa/StreamingModel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

#include "worker/sherpa/Hotwords.h"
#include "worker/sherpa/floatSamples.h"

namespace palaver {

namespace {

// Audio of one step, samples.
constexpr std::size_t stepLength = speechSampleRate / 10;

// Silence after the end of the audio, so that a model that looks ahead yields its last words.
constexpr std::size_t silenceAtEnd = 4 * speechSampleRate / 5;

class StreamingTranscriber final : public Transcriber {
 public:
  StreamingTranscriber(const SherpaLibrary& library, const SherpaOnnxOnlineRecognizer* recognizer,
                       const std::string& hotwords)
      : library_(library),
        recognizer_(recognizer),
        stream_(hotwords.empty() ? library.CreateOnlineStream(recognizer)
                                 : library.CreateOnlineStreamWithHotwords(recognizer, hotwords.c_str()),
                library.DestroyOnlineStream) {
    if (!stream_) throw sherpaError(sherpaEngineFailed, "The speech engine refuses a stream");
  }

  void append(std::span<const std::int16_t> samples) override {
    pending_.insert(pending_.end(), samples.begin(), samples.end());
    length_ += static_cast<std::int64_t>(samples.size());
  }

  void endAudio() override { isEnded_ = true; }
  bool wantsAudio() const override { return pending_.size() < 2 * speechSampleRate; }
  bool hasWork() const override { return !pending_.empty() || (isEnded_ && !isFinished_); }

  void work() override {
    if (!pending_.empty()) {
      const auto count = std::min(pending_.size(), stepLength);
      accept({pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count)});
      pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count));
    } else {
      isFinished_ = true;
      if (length_ == 0) return;
      accept(std::vector<std::int16_t>(silenceAtEnd));
      library_.OnlineStreamInputFinished(stream_.get());
    }
    bool hasDecoded = false;
    for (; library_.IsOnlineStreamReady(recognizer_, stream_.get()) != 0; hasDecoded = true)
      library_.DecodeOnlineStream(recognizer_, stream_.get());
    if (hasDecoded) updateWords();
  }

  bool isFinished() const override { return isFinished_; }
  std::vector<SpokenWord> words() const override { return words_; }
  std::int64_t length() const override { return length_; }

 private:
  void accept(const std::vector<std::int16_t>& samples) {
    const auto audio = floatSamples(samples);
    library_.OnlineStreamAcceptWaveform(stream_.get(), speechSampleRate, audio.data(),
                                        static_cast<std::int32_t>(audio.size()));
  }

  void updateWords() {
    const std::unique_ptr<const SherpaOnnxOnlineRecognizerResult,
                          decltype(library_.DestroyOnlineRecognizerResult)>
        result(library_.GetOnlineStreamResult(recognizer_, stream_.get()),
               library_.DestroyOnlineRecognizerResult);
    if (!result || !result->text) return;
    words_ = withoutNoise(
        wordsOfResult(result->text, result->tokens_arr, result->timestamps, result->count, length_));
  }

  const SherpaLibrary& library_;
  const SherpaOnnxOnlineRecognizer* const recognizer_;
  const std::unique_ptr<const SherpaOnnxOnlineStream, decltype(SherpaLibrary::DestroyOnlineStream)> stream_;
  std::deque<std::int16_t> pending_;  // not yet decoded
  std::int64_t length_ = 0;
  bool isEnded_ = false;
  bool isFinished_ = false;
  std::vector<SpokenWord> words_;
};

}  // namespace

StreamingModel::StreamingModel(std::shared_ptr<const SherpaLibrary> library, const SherpaModel& model)
    : library_(std::move(library)) {
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
      break;
    case SherpaModelKind::onlineParaformer:
      models.paraformer = {model.encoder.c_str(), model.decoder.c_str()};
      break;
    default:
      throw sherpaError(sherpaModelUnusable, "The speech model takes only whole utterances");
  }
  recognizer_ = library_->CreateOnlineRecognizer(&config);
  if (!recognizer_) throw refusedModel(model.tokens.parent_path());
}

StreamingModel::~StreamingModel() {
  library_->DestroyOnlineRecognizer(recognizer_);
}

std::unique_ptr<Transcriber> StreamingModel::transcribe(const std::vector<std::string>& phrases) {
  return std::make_unique<StreamingTranscriber>(*library_, recognizer_,
                                                takesHotwords_ ? hotwordsOf(phrases) : "");
}

}  // namespace palaver
