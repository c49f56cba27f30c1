// Wraps the library's decoder and its language model in objects that report errors as exceptions.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/models/SpeechModelFiles.h"
#include "worker/pocketsphinx/CepstralMean.h"
#include "worker/pocketsphinx/PocketSphinxHandles.h"

namespace palaver {

// Sample rate of the model, Hz. Its audio is mono.
inline constexpr int modelSampleRate = 16000;
// Samples per decoder frame, 10 ms.
inline constexpr int samplesPerDecoderFrame = modelSampleRate / 100;

// Holds the language model of a locale (34 MB), shared by the decoders of one thread. Used on
// that thread only.
class BaseLanguageModel {
 public:
  // Loads the language model. Throws PlatformError when a file is empty. Other damage may crash or end the
  // process.
  explicit BaseLanguageModel(SpeechModelFiles files);

  const SpeechModelFiles& files() const { return files_; }
  // Fingerprint of the files when they were checked.
  const std::string& fingerprint() const { return fingerprint_; }
  ngram_model_t* get() const { return model_.get(); }
  cmd_ln_t* configuration() const { return configuration_.get(); }
  logmath_t* logMath() const { return logMath_.get(); }

 private:
  SpeechModelFiles files_;
  std::string fingerprint_;
  CommandLineHandle configuration_;
  LogMathHandle logMath_;
  LanguageModelHandle model_;
};

// Range of audio that the decoder recognized as one word or as no word.
struct DecodedSegment {
  std::string word;              // lower case; empty for silence and noise
  std::int64_t startSample = 0;  // from the first sample of the utterance
  std::int64_t endSample = 0;    // exclusive

  std::int64_t length() const { return endSample - startSample; }
};

// Decodes one speaker's audio. It learns the spectral mean of the speaker and the microphone, so the audio of
// two sources must not be mixed. Used on the thread of its language model.
class Decoder {
 public:
  // Loads the acoustic model and the dictionary: 59 MB, 200 to 400 ms. Throws PlatformError.
  explicit Decoder(std::shared_ptr<const BaseLanguageModel> language);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // Prefers these phrases from the next utterance on. Must not be called during an utterance. Words that the
  // model's phones cannot pronounce are ignored silently. Does nothing when the phrases are unchanged.
  void setContextualStrings(std::span<const std::string> phrases);

  // Starts an utterance, which takes audio until it is ended. One at a time.
  void startUtterance();
  // Decodes audio during an utterance. Takes about a tenth of the audio's duration.
  void process(std::span<const std::int16_t> samples);
  void endUtterance();

  // Speech frames (10 ms each) after which the voice is known and the mean no longer improves.
  static constexpr std::int64_t framesToKnowVoice = 800;
  // Returns whether the voice was known before the utterance began. If not, decoding the utterance again with
  // the mean it has taught gives better words.
  bool knowsVoice() const { return speechBeforeUtterance_ >= framesToKnowVoice; }
  // Restarts the utterance with all of its audio so far. Takes as long as process() for that audio.
  void redecode(std::span<const std::int16_t> utterance);

  // Returns the segments recognized so far in the utterance, or the final ones after its end.
  std::vector<DecodedSegment> segments() const;

 private:
  void useLanguageModel(ngram_model_t* model);
  void beginUtterance();
  enum class Learning { yes, no };
  void decode(std::span<const std::int16_t> samples, Learning learning);
  void takeSums(Learning learning);
  void learnMean();
  cmn_t& meanInUse() const;

  std::shared_ptr<const BaseLanguageModel> language_;
  DecoderHandle decoder_;
  std::vector<std::string> contextualStrings_;
  std::string searchName_;
  bool inUtterance_ = false;
  CepstralMean mean_;
  std::int64_t speechBeforeUtterance_ = 0;  // frames
};

}  // namespace palaver
