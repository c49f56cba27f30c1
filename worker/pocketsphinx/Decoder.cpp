#include "worker/pocketsphinx/Decoder.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>

#include <sphinxbase/err.h>
#include <sphinxbase/feat.h>

#include "worker/pocketsphinx/ContextualModel.h"
#include "worker/pocketsphinx/Pronunciations.h"

namespace palaver {

namespace {

// Base of the library's stored log-probabilities. The library's own default, not one of the operating system.
constexpr double logBase = 1.0001;
// Weight of the contextual phrases in the interpolated model. Measured to have little effect.
constexpr float contextualWeight = 0.1F;
// Audio between updates of the mean. Updating once a second instead gave a tenth more errors.
constexpr std::size_t samplesPerMean = modelSampleRate / 10;

PlatformError engineFailure(const std::string& what) {
  return recognizerError(RecognizerErrorCode::engineFailed, "The speech engine could not " + what);
}

CommandLineHandle makeConfiguration(const SpeechModelFiles& files) {
  // The library logs to stderr unless that is disabled before its first configuration.
  static std::once_flag silenced;
  std::call_once(silenced, [] { err_set_logfp(nullptr); });

  std::vector<std::string> arguments{
      "decoder", "-hmm", files.acousticModel.string(), "-dict", files.dictionary.string(),
      // Silence removal makes times wrong by seconds.
      "-remove_silence", "no",
      // The second and third pass make finals late and, on our recordings, worse.
      "-fwdflat", "no", "-bestpath", "no",
      // Bounds the work per frame.
      "-maxhmmpf", "3000"};
  std::vector<char*> pointers;
  pointers.reserve(arguments.size());
  for (auto& argument : arguments) pointers.push_back(argument.data());
  CommandLineHandle configuration(
      cmd_ln_parse_r(nullptr, ps_args(), static_cast<std::int32_t>(pointers.size()), pointers.data(), TRUE));
  if (!configuration) throw engineFailure("be configured");
  return configuration;
}

// A full disk leaves empty files, and the library does not name the file that ends it. Other damage crashes
// or ends the process, which the caller must survive.
void checkFiles(const SpeechModelFiles& files) {
  for (const auto& file : files.all()) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error) || std::filesystem::file_size(file, error) == 0 ||
        error)
      throw recognizerError(RecognizerErrorCode::modelDamaged,
                            file.filename().string() + " is empty or not a file");
  }
}

// Creates an unnamed file that the library can open by path.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string_view contents)
      : descriptor_(memfd_create("language-model", MFD_CLOEXEC)) {
    if (descriptor_ < 0) throw engineFailure("make a temporary file");
    while (!contents.empty()) {
      const ssize_t written = write(descriptor_, contents.data(), contents.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        close(descriptor_);
        throw engineFailure("write a temporary file");
      }
      contents.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  ~TemporaryFile() { close(descriptor_); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

// Returns nothing for fillers: "<s>", "</s>", "<sil>", "[NOISE]" and the like. "to(2)" is a second
// pronunciation of "to".
std::string plainWord(std::string_view word) {
  if (word.starts_with('<') || word.starts_with('[')) return {};
  if (const auto variant = word.find('('); variant != std::string_view::npos && variant > 0)
    word = word.substr(0, variant);
  return std::string(word);
}

bool isInDictionary(ps_decoder_t* decoder, const std::string& word) {
  char* const phones = ps_lookup_word(decoder, word.c_str());
  free(phones);
  return phones != nullptr;
}

}  // namespace

BaseLanguageModel::BaseLanguageModel(SpeechModelFiles files)
    : files_(std::move(files)),
      fingerprint_(files_.fingerprint()),
      configuration_(makeConfiguration(files_)),
      logMath_(logmath_init(logBase, 0, 0)) {
  checkFiles(files_);
  model_.reset(
      ngram_model_read(configuration_.get(), files_.languageModel.c_str(), NGRAM_AUTO, logMath_.get()));
  if (!model_) throw engineFailure("load its language model");
}

Decoder::Decoder(std::shared_ptr<const BaseLanguageModel> language)
    : language_(std::move(language)), decoder_(ps_init(makeConfiguration(language_->files()).get())) {
  if (!decoder_) throw engineFailure("load its acoustic model");
  useLanguageModel(language_->get());
  const cmn_t& state = meanInUse();
  mean_ = CepstralMean({state.cmn_mean, static_cast<std::size_t>(state.veclen)});
}

Decoder::~Decoder() {
  if (inUtterance_) ps_end_utt(decoder_.get());
}

void Decoder::useLanguageModel(ngram_model_t* model) {
  const std::string name = searchName_ == "a" ? "b" : "a";
  if (ps_set_lm(decoder_.get(), name.c_str(), model) < 0 || ps_set_search(decoder_.get(), name.c_str()) < 0)
    throw engineFailure("use its language model");
  if (!searchName_.empty()) ps_unset_search(decoder_.get(), searchName_.c_str());
  searchName_ = name;
}

void Decoder::setContextualStrings(std::span<const std::string> phrases) {
  if (std::ranges::equal(phrases, contextualStrings_)) return;
  ContextualModel contextual(phrases);
  std::vector<std::string> unspoken;
  for (const auto& word : contextual.words()) {
    if (isInDictionary(decoder_.get(), word)) continue;
    const std::string phones = pronunciation(word);
    if (phones.empty() || ps_add_word(decoder_.get(), word.c_str(), phones.c_str(), FALSE) < 0)
      unspoken.push_back(word);
  }
  contextual.remove(unspoken);

  if (contextual.isEmpty()) {
    useLanguageModel(language_->get());
  } else {
    const TemporaryFile file(contextual.arpa());
    const LanguageModelHandle small(
        ngram_model_read(language_->configuration(), file.path().c_str(), NGRAM_ARPA, language_->logMath()));
    if (!small) throw engineFailure("use the vocabulary");
    std::array models{language_->get(), small.get()};
    std::string baseName = "base";
    std::string contextualName = "contextual";
    std::array names{baseName.data(), contextualName.data()};
    const std::array weights{1 - contextualWeight, contextualWeight};
    const LanguageModelHandle both(ngram_model_set_init(language_->configuration(), models.data(),
                                                        names.data(), weights.data(), models.size()));
    if (!both) throw engineFailure("use the vocabulary");
    useLanguageModel(both.get());
  }
  contextualStrings_.assign(phrases.begin(), phrases.end());
}

void Decoder::startUtterance() {
  beginUtterance();
  speechBeforeUtterance_ = mean_.speechFrames();
}

void Decoder::beginUtterance() {
  // Without a new stream, frame numbers would continue from the utterance before.
  if (ps_start_stream(decoder_.get()) < 0 || ps_start_utt(decoder_.get()) < 0)
    throw engineFailure("start an utterance");
  inUtterance_ = true;
}

void Decoder::process(std::span<const std::int16_t> samples) {
  if (inUtterance_) decode(samples, Learning::yes);
}

void Decoder::decode(std::span<const std::int16_t> samples, Learning learning) {
  while (!samples.empty()) {
    const auto step = samples.first(std::min(samples.size(), samplesPerMean));
    samples = samples.subspan(step.size());
    if (ps_process_raw(decoder_.get(), step.data(), step.size(), FALSE, FALSE) < 0)
      throw engineFailure("process the audio");
    takeSums(learning);
    if (learning == Learning::yes) learnMean();
  }
}

void Decoder::endUtterance() {
  if (!inUtterance_) return;
  inUtterance_ = false;
  const int status = ps_end_utt(decoder_.get());
  takeSums(Learning::yes);
  learnMean();
  mean_.discard();
  if (status < 0) throw engineFailure("end the utterance");
}

void Decoder::redecode(std::span<const std::int16_t> utterance) {
  if (!inUtterance_) return;
  inUtterance_ = false;
  const int status = ps_end_utt(decoder_.get());
  takeSums(Learning::no);
  learnMean();
  if (status < 0) throw engineFailure("begin the utterance anew");
  beginUtterance();
  // This audio has already been added to the mean.
  decode(utterance, Learning::no);
}

cmn_t& Decoder::meanInUse() const {
  return *ps_get_feat(decoder_.get())->cmn_struct;
}

// Takes over the sums from the library, which would otherwise update its mean from them, including silence.
void Decoder::takeSums(Learning learning) {
  cmn_t& state = meanInUse();
  const std::span<mfcc_t> sum(state.sum, static_cast<std::size_t>(state.veclen));
  if (learning == Learning::yes) mean_.add(sum, state.nframe);
  std::ranges::fill(sum, mfcc_t{0});
  state.nframe = 0;
}

// Counts the frames held back as speech if the utterance has a word. Gives the newest mean to the decoder.
void Decoder::learnMean() {
  if (std::ranges::any_of(segments(), [](const DecodedSegment& segment) { return !segment.word.empty(); }))
    mean_.confirm();
  std::ranges::copy(mean_.mean(), meanInUse().cmn_mean);
}

std::vector<DecodedSegment> Decoder::segments() const {
  std::vector<DecodedSegment> segments;
  for (ps_seg_t* segment = ps_seg_iter(decoder_.get()); segment; segment = ps_seg_next(segment)) {
    int first = 0;
    int last = 0;  // inclusive
    ps_seg_frames(segment, &first, &last);
    segments.push_back({plainWord(ps_seg_word(segment)), std::int64_t{first} * samplesPerDecoderFrame,
                        (std::int64_t{last} + 1) * samplesPerDecoderFrame});
  }
  return segments;
}

}  // namespace palaver
