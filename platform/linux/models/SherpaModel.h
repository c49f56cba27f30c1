// Describes the model in a folder as sherpa-onnx publishes it: its kind and its files.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/linux/models/UnusableModel.h"

namespace palaver {

enum class SherpaModelKind {
  onlineTransducer,
  onlineZipformerCTC,
  onlineNeMoCTC,
  onlineParaformer,
  offlineTransducer,
  offlineNeMoTransducer,
  offlineNeMoCTC,
  offlineZipformerCTC,
  offlineWeNetCTC,
  offlineTeleSpeechCTC,
  offlineParaformer,
  offlineSenseVoice,
  offlineWhisper,
  offlineMoonshine,        // version 1: four models
  offlineMoonshineMerged,  // version 2: two models
};

// Which of the letters A to Z and a to z the tokens have.
enum class LetterCase { both, upper, lower };

bool isStreaming(SherpaModelKind kind);

// Returns a name for people, such as "Whisper".
std::string_view describe(SherpaModelKind kind);

// Paths are empty where a kind has no such file.
struct SherpaModel {
  SherpaModelKind kind{};
  std::filesystem::path model;  // the only one of a CTC model, SenseVoice and Paraformer
  std::filesystem::path encoder;
  std::filesystem::path decoder;
  std::filesystem::path joiner;
  std::filesystem::path preprocessor;   // Moonshine 1
  std::filesystem::path cachedDecoder;  // Moonshine 1; `decoder` is the one without a cache
  std::filesystem::path tokens;
  std::filesystem::path bpeVocabulary;  // "bpe.vocab", where there is one
  std::string transducerType;           // streaming transducers but NeMo's, such as "zipformer2"
  std::string promptLanguage;         // streaming NeMo transducers of several languages; "" lets them detect
  std::size_t subsamplingFactor = 0;  // streaming NeMo CTC: feature frames of 10 ms per step
  bool isMultilingual = false;        // takes a language: Whisper, SenseVoice
  bool hasAlignment = false;          // Whisper: the decoder returns what the times of tokens need
  bool hasCharacterTokens = false;    // tokens.txt has characters of Chinese, Japanese or Korean
  LetterCase letterCase = LetterCase::both;
  bool hasWordPieces = false;  // tokens.txt has pieces of words
};

// Reads the names of the folder's files and the metadata of its models, and checks what the library would end
// the process for: missing files and keys, models of different kinds, a tokens.txt of another model or
// without the tokens that it needs. Of several variants of a file the one with 8-bit weights is taken.
// `localeIdentifier` is checked against the languages that the model states; it may be empty. Takes
// milliseconds. Any thread. Throws UnusableModel.
SherpaModel readSherpaModel(const std::filesystem::path& folder, std::string_view localeIdentifier);

// Returns the language of an identifier, such as "ja" of "ja-JP".
std::string languageOf(std::string_view localeIdentifier);

}  // namespace palaver
