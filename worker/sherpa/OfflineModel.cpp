#include "worker/sherpa/OfflineModel.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

#include "worker/sherpa/Loudness.h"
#include "worker/sherpa/Repetition.h"
#include "worker/sherpa/floatSamples.h"

namespace palaver {

namespace {

// Silence that is appended to the audio. Without it Whisper tiny.en makes a third more word errors, and
// transducers lose the last word.
constexpr std::size_t silenceAtEnd = speechSampleRate;

// Silence of the second decoding when the first one repeats itself. Whisper repeated "five five" without end
// in 13 of 80 decodings with 1 s of silence, in none of 80 with 3 s; other words in 20 and 11.
constexpr std::size_t silenceOfSecondDecoding = 3 * speechSampleRate;

// Whisper drops what is beyond 29.5 s.
constexpr std::size_t longestAudio = 29 * speechSampleRate;
static_assert(GrowingWindow::longestLength + silenceAtEnd <= longestAudio);

// Holds the window's audio and decodes what GrowingWindow asks for.
class OfflineTranscriber final : public Transcriber {
 public:
  explicit OfflineTranscriber(const OfflineModel& model) : model_(model) {}

  void append(std::span<const std::int16_t> samples) override {
    audio_.insert(audio_.end(), samples.begin(), samples.end());
    window_.append(samples);
    forget();
  }

  void endAudio() override { window_.endAudio(); }

  // More than the longest decoding, so that one is due when no more audio is wanted.
  bool wantsAudio() const override {
    return window_.length() - window_.neededFrom() < GrowingWindow::longestLength + 2 * speechSampleRate;
  }

  bool hasWork() const override { return window_.next().has_value(); }

  std::int64_t stepLength() const override {
    const auto decoding = window_.next();
    return decoding ? decoding->to - decoding->from : 0;
  }

  void work() override {
    const auto decoding = window_.next();
    if (!decoding) return;
    const auto begin = audio_.begin() + (decoding->from - audioStart_);
    const std::vector<std::int16_t> samples(begin, begin + (decoding->to - decoding->from));
    const auto before = std::chrono::steady_clock::now();
    auto answer = model_.decode(samples);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - before;
    answer.cost = static_cast<std::int64_t>(passed.count() * speechSampleRate);
    for (auto& word : answer.words) {
      word.startSample += decoding->from;
      word.endSample += decoding->from;
    }
    window_.decoded(*decoding, std::move(answer));
    forget();
  }

  bool isFinished() const override { return window_.isFinished(); }
  std::vector<SpokenWord> words() const override { return window_.words(); }
  std::int64_t length() const override { return window_.length(); }

 private:
  void forget() {
    const auto count = window_.neededFrom() - audioStart_;
    // In portions, because each one moves the rest.
    if (count < speechSampleRate) return;
    audio_.erase(audio_.begin(), audio_.begin() + count);
    audioStart_ += count;
  }

  const OfflineModel& model_;
  GrowingWindow window_;
  std::vector<std::int16_t> audio_;
  std::int64_t audioStart_ = 0;  // position of the first sample in audio_
};

}  // namespace

OfflineModel::OfflineModel(std::shared_ptr<const SherpaLibrary> library, const SherpaModel& model,
                           std::string_view locale)
    : library_(std::move(library)) {
  const auto language = languageOf(locale);
  SherpaOnnxOfflineRecognizerConfig config{};
  config.feat_config = {.sample_rate = speechSampleRate, .feature_dim = 80};
  config.decoding_method = "greedy_search";
  auto& models = config.model_config;
  models.tokens = model.tokens.c_str();
  models.num_threads = 1;
  models.provider = "cpu";
  switch (model.kind) {
    case SherpaModelKind::offlineTransducer:
    case SherpaModelKind::offlineNeMoTransducer:
      models.transducer = {model.encoder.c_str(), model.decoder.c_str(), model.joiner.c_str()};
      // Without a type the library loads the encoder twice, and ends the process when its metadata has none.
      models.model_type =
          model.kind == SherpaModelKind::offlineNeMoTransducer ? "nemo_transducer" : "transducer";
      break;
    case SherpaModelKind::offlineNeMoCTC:
      models.nemo_ctc.model = model.model.c_str();
      break;
    case SherpaModelKind::offlineZipformerCTC:
      models.zipformer_ctc.model = model.model.c_str();
      break;
    case SherpaModelKind::offlineWeNetCTC:
      models.wenet_ctc.model = model.model.c_str();
      break;
    case SherpaModelKind::offlineTeleSpeechCTC:
      models.telespeech_ctc = model.model.c_str();
      models.model_type = "telespeech_ctc";  // as above
      break;
    case SherpaModelKind::offlineParaformer:
      models.paraformer.model = model.model.c_str();
      break;
    case SherpaModelKind::offlineSenseVoice:
      models.sense_voice = {.model = model.model.c_str(), .language = language.c_str(), .use_itn = 1};
      break;
    case SherpaModelKind::offlineWhisper:
      models.whisper.encoder = model.encoder.c_str();
      models.whisper.decoder = model.decoder.c_str();
      models.whisper.language = model.isMultilingual ? language.c_str() : "en";
      models.whisper.task = "transcribe";
      models.whisper.enable_token_timestamps = model.hasAlignment ? 1 : 0;
      break;
    case SherpaModelKind::offlineMoonshine:
      models.moonshine = {.preprocessor = model.preprocessor.c_str(),
                          .encoder = model.encoder.c_str(),
                          .uncached_decoder = model.decoder.c_str(),
                          .cached_decoder = model.cachedDecoder.c_str(),
                          .merged_decoder = nullptr};
      break;
    case SherpaModelKind::offlineMoonshineMerged:
      models.moonshine = {.preprocessor = nullptr,
                          .encoder = model.encoder.c_str(),
                          .uncached_decoder = nullptr,
                          .cached_decoder = nullptr,
                          .merged_decoder = model.decoder.c_str()};
      break;
    default:
      throw sherpaError(sherpaModelUnusable, "The speech model takes no whole utterances");
  }
  recognizer_ = library_->CreateOfflineRecognizer(&config);
  if (!recognizer_) throw refusedModel(model.tokens.parent_path());
}

OfflineModel::~OfflineModel() {
  library_->DestroyOfflineRecognizer(recognizer_);
}

std::unique_ptr<Transcriber> OfflineModel::transcribe(const std::vector<std::string>& /*phrases*/) {
  return std::make_unique<OfflineTranscriber>(*this);
}

GrowingWindow::Answer OfflineModel::decode(std::span<const std::int16_t> samples) const {
  if (samples.empty()) return {};
  samples = samples.first(std::min(samples.size(), static_cast<std::size_t>(GrowingWindow::longestLength)));
  auto answer = decodeOnce(samples, silenceAtEnd);
  if (repetitionAtEnd(answer.words).length == 0) return answer;
  Loudness loudness;
  loudness.append(samples);
  const auto voice = loudness.voiceEnd(0) - loudness.voiceStart(0);
  if (!isRunaway(answer.words, voice)) return answer;
  answer = decodeOnce(samples, std::min(silenceOfSecondDecoding, longestAudio - samples.size()));
  answer.words = withoutRunaway(std::move(answer.words), voice);
  return answer;
}

GrowingWindow::Answer OfflineModel::decodeOnce(std::span<const std::int16_t> samples,
                                               std::size_t silence) const {
  GrowingWindow::Answer answer;
  const auto audio = floatSamples(samples, silence);
  const std::unique_ptr<const SherpaOnnxOfflineStream, decltype(library_->DestroyOfflineStream)> stream(
      library_->CreateOfflineStream(recognizer_), library_->DestroyOfflineStream);
  library_->AcceptWaveformOffline(stream.get(), speechSampleRate, audio.data(),
                                  static_cast<std::int32_t>(audio.size()));
  library_->DecodeOfflineStream(recognizer_, stream.get());
  const std::unique_ptr<const SherpaOnnxOfflineRecognizerResult,
                        decltype(library_->DestroyOfflineRecognizerResult)>
      result(library_->GetOfflineStreamResult(stream.get()), library_->DestroyOfflineRecognizerResult);
  if (!result || !result->text) return answer;

  const auto length = static_cast<std::int64_t>(samples.size());
  answer.words = wordsOfResult(result->text, result->tokens_arr, result->timestamps, result->count, length);
  answer.hasTimes = result->timestamps != nullptr && result->count > 0;
  return answer;
}

}  // namespace palaver
