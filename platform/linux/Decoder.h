// The library's decoder and the language model behind it, as objects that fail by exceptions.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/CepstralMean.h"
#include "platform/linux/PocketSphinxHandles.h"
#include "platform/linux/SpeechModelFiles.h"

namespace palaver {

// Audio of the model: mono at this rate (Hz).
inline constexpr int modelSampleRate = 16000;
// Samples of one of the decoder's frames, 10 ms.
inline constexpr int samplesPerDecoderFrame = modelSampleRate / 100;

// The language model of a locale, 34 MB, shared by the decoders of one thread. Lives on that thread.
class BaseLanguageModel {
 public:
  // Checks every file of the model, then loads the language model. Throws PlatformError.
  explicit BaseLanguageModel(SpeechModelFiles files);

  const SpeechModelFiles& files() const { return files_; }
  // Of the files when they were checked.
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

// A stretch of audio that the decoder takes for one word, or for none.
struct DecodedSegment {
  std::string word;              // lower case; empty for silence and noise
  std::int64_t startSample = 0;  // from the first sample of the utterance
  std::int64_t endSample = 0;    // exclusive

  std::int64_t length() const { return endSample - startSample; }
};

// A decoder for one speaker's audio; it learns the speaker's and the microphone's spectral mean as it goes,
// so the audio of two sources must not be mixed. Lives on the thread of its language model.
class Decoder {
 public:
  // Loads the acoustic model and the dictionary, 59 MB and 200 to 400 ms. Throws PlatformError.
  explicit Decoder(std::shared_ptr<const BaseLanguageModel> language);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // Prefers these phrases from the next utterance on; not during an utterance. What cannot be spoken with the
  // model's phones is left out silently. Does nothing when the phrases are those already preferred.
  void setContextualStrings(std::span<const std::string> phrases);

  // An utterance takes audio until it is ended; one at a time.
  void startUtterance();
  // Only during an utterance. Works for about a tenth of the audio's duration.
  void process(std::span<const std::int16_t> samples);
  void endUtterance();

  // Frames of speech (10 ms each) after which a voice is known, and the mean as good as it will be.
  static constexpr std::int64_t framesToKnowVoice = 800;
  // Whether the voice was known before the utterance began. If not, hearing the utterance again with what it
  // has taught gives better words.
  bool knowsVoice() const { return speechBeforeUtterance_ >= framesToKnowVoice; }
  // Begins the utterance anew with all of its audio so far. Takes as long as process() for it.
  void hearAgain(std::span<const std::int16_t> utterance);

  // What the decoder believes it has heard in the utterance so far or, after its end, at last.
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
