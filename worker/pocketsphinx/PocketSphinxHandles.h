// Declares owning pointers to the library's objects, and the recognizer's errors.
#pragma once

#include <memory>
#include <string>

#include <pocketsphinx.h>
#include <sphinxbase/cmd_ln.h>
#include <sphinxbase/logmath.h>
#include <sphinxbase/ngram_model.h>

#include "platform/PlatformError.h"

namespace palaver {

inline constexpr const char* pocketSphinxErrorDomain = "PocketSphinx";

// Error codes of that domain. noSpeech has the number of the macOS speech framework.
enum class RecognizerErrorCode : long {
  modelDamaged = 1,      // a model file cannot be opened, is unreadable or malformed
  engineFailed = 2,      // the library failed unexpectedly
  unsupportedAudio = 3,  // not 16 kHz mono 16-bit
  noSpeech = 1110,
};

inline PlatformError recognizerError(RecognizerErrorCode code, const std::string& description) {
  return {pocketSphinxErrorDomain, static_cast<long>(code), description};
}

template <auto release>
struct HandleRelease {
  template <typename Handle>
  void operator()(Handle* handle) const {
    release(handle);
  }
};

using CommandLineHandle = std::unique_ptr<cmd_ln_t, HandleRelease<cmd_ln_free_r>>;
using LogMathHandle = std::unique_ptr<logmath_t, HandleRelease<logmath_free>>;
using LanguageModelHandle = std::unique_ptr<ngram_model_t, HandleRelease<ngram_model_free>>;
using DecoderHandle = std::unique_ptr<ps_decoder_t, HandleRelease<ps_free>>;

}  // namespace palaver
