#include "platform/linux/models/SherpaModel.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <stdexcept>

#include "platform/linux/models/ModelFolder.h"
#include "platform/linux/models/ONNXMetadata.h"
#include "platform/linux/models/TokenTable.h"

namespace palaver {

namespace {

using std::filesystem::path;

[[noreturn]] void fail(const std::string& sentence) {
  throw UnusableModel(sentence);
}

ONNXMetadata metadataOf(const path& file) {
  try {
    return readONNXMetadata(file.string());
  } catch (const std::runtime_error& error) {
    fail(file.string() + " " + error.what() + ".");
  }
}

// Returns the last dimension of the model's output, or none when it is not fixed.
std::optional<std::size_t> outputWidthOf(const path& file) {
  try {
    return readONNXOutputWidth(file.string());
  } catch (const std::runtime_error& error) {
    fail(file.string() + " " + error.what() + ".");
  }
}

// Checks that the file is a model, in either format.
void checkModel(const path& file) {
  if (file.extension() != ".ort") {
    metadataOf(file);
    return;
  }
  // A FlatBuffer has its identifier in the bytes 4 to 7.
  std::array<char, 8> head{};
  std::ifstream stream(file, std::ios::binary);
  stream.read(head.data(), head.size());
  if (!stream || std::string_view(head.data() + 4, 4) != "ORTM")
    fail(file.string() + " is not a model of the ONNX Runtime or is damaged.");
}

std::string value(const ONNXMetadata& metadata, std::string_view key) {
  const auto entry = metadata.find(key);
  return entry == metadata.end() ? "" : entry->second;
}

std::optional<std::size_t> count(const ONNXMetadata& metadata, std::string_view key) {
  const auto text = value(metadata, key);
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && !text.empty() ? std::optional(number)
                                                                                   : std::nullopt;
}

void require(const path& file, const ONNXMetadata& metadata, std::initializer_list<std::string_view> keys) {
  for (const auto key : keys)
    if (!metadata.contains(key))
      fail("The metadata of " + file.string() + " lacks the key " + std::string(key) + ".");
}

[[noreturn]] void failUnknown(const path& file, const std::string& type) {
  fail(type.empty() ? "The metadata of " + file.string() + " lacks the key model_type."
                    : file.string() + " is a model of the type " + type + ", which is not supported.");
}

// Reads tokens.txt. `wanted` is how many tokens the model has, as far as that is known.
TokenTable readTokens(SherpaModel& model, std::optional<std::size_t> wanted = std::nullopt,
                      std::size_t slack = 0) {
  const auto table = readTokenTable(model.tokens);
  model.hasCharacterTokens = table.hasCharacters;
  model.hasWordPieces = table.hasWordPieces;
  if (table.hasUpperCase != table.hasLowerCase)
    model.letterCase = table.hasUpperCase ? LetterCase::upper : LetterCase::lower;
  // Exports differ in whether the blank of CTC and transducers is listed or counted.
  if (wanted && (table.count + slack < *wanted || table.count > *wanted + slack))
    fail(model.tokens.string() + " belongs to another model: it has " + std::to_string(table.count) +
         " tokens, and the model has " + std::to_string(*wanted) + ".");
  return table;
}

// The library ends the process when the blank of a CTC model is missing.
void readTokensOfCTC(SherpaModel& model, std::optional<std::size_t> wanted = std::nullopt) {
  if (!readTokens(model, wanted, 1).hasBlank)
    fail(model.tokens.string() + " lacks the token <blk>, <blank> or <eps>.");
}

// Tokens of the kinds whose tokens.txt the library takes for base64. It ends the process for other text.
TokenTable readBase64Tokens(SherpaModel& model) {
  auto table = readTokens(model);
  if (!table.isBase64) fail("The tokens of " + model.tokens.string() + " are not in base64.");
  return table;
}

[[noreturn]] void failMissing(const ModelFolder& folder, std::string_view name) {
  fail("The folder " + folder.directory().string() + " lacks " + std::string(name) + ".");
}

path required(const ModelFolder& folder, std::string_view stem) {
  if (const auto file = folder.findModel(stem)) return *file;
  failMissing(folder, std::string(stem) + ".onnx");
}

void findTokens(const ModelFolder& folder, SherpaModel& model) {
  const auto file = folder.find("tokens", {".txt"});
  if (!file) failMissing(folder, "tokens.txt");
  model.tokens = *file;
}

// NeMo's streaming exports have no type but the dimensions of their caches.
bool isNeMoStreaming(const ONNXMetadata& metadata) {
  return std::ranges::any_of(metadata,
                             [](const auto& entry) { return entry.first.starts_with("cache_last_"); });
}

void requireNeMoCaches(const path& file, const ONNXMetadata& metadata) {
  require(file, metadata,
          {"vocab_size", "window_size", "chunk_shift", "subsampling_factor", "cache_last_channel_dim1",
           "cache_last_channel_dim2", "cache_last_channel_dim3", "cache_last_time_dim1",
           "cache_last_time_dim2", "cache_last_time_dim3"});
}

// The metadata does not count the blank, which is the last token.
void readTokensOfNeMoTransducer(SherpaModel& model, const ONNXMetadata& encoder) {
  auto wanted = count(encoder, "vocab_size");
  if (wanted) ++*wanted;
  const auto blank = readTokens(model, wanted).blankNumber;
  if (!blank) fail(model.tokens.string() + " lacks the token <blk>.");
  if (wanted && *blank + 1 != *wanted)
    fail(model.tokens.string() + " belongs to another model: its token <blk> is not the last one.");
}

// A joiner that scores more than the tokens predicts durations (TDT). The library expects that when the
// address in the metadata contains "tdt", and ends the process when the joiner does not agree.
void checkDurations(const SherpaModel& model, const ONNXMetadata& encoder) {
  const auto vocabulary = count(encoder, "vocab_size");
  const auto width = outputWidthOf(model.joiner);
  if (!vocabulary || !width) return;
  const auto tokens = *vocabulary + 1;
  const bool isTDT = value(encoder, "url").find("tdt") != std::string::npos;
  if (*width < tokens)
    fail(model.joiner.string() + " belongs to another model: it scores " + std::to_string(*width) +
         " tokens, and the model has " + std::to_string(tokens) + ".");
  if (*width > tokens && !isTDT)
    fail(model.joiner.string() +
         " predicts durations (TDT), which the engine only knows from a key url that contains \"tdt\" in the "
         "metadata of " +
         model.encoder.string() + ".");
  if (*width == tokens && isTDT)
    fail(model.joiner.string() + " predicts no durations, but the key url in the metadata of " +
         model.encoder.string() + " contains \"tdt\".");
}

// Returns the name that the metadata has for the locale or its language, a key of a JSON object such as
// {"ja-JP": 1, "auto": 2}, or nothing.
std::string promptLanguage(const std::string& dictionary, std::string_view locale) {
  std::string name(locale);
  std::ranges::replace(name, '_', '-');
  if (dictionary.find('"' + name + '"') != std::string::npos) return name;
  const auto language = languageOf(locale);
  const bool isKnown = !language.empty() && (dictionary.find('"' + language + '"') != std::string::npos ||
                                             dictionary.find('"' + language + '-') != std::string::npos);
  return isKnown ? language : "";
}

void readTransducer(const ModelFolder& folder, SherpaModel& model, std::string_view locale) {
  model.decoder = required(folder, "decoder");
  findTokens(folder, model);
  const auto encoder = metadataOf(model.encoder);
  const auto decoder = metadataOf(model.decoder);
  metadataOf(model.joiner);
  const auto type = value(encoder, "model_type");
  if (isNeMoStreaming(encoder)) {
    model.kind = SherpaModelKind::onlineTransducer;
    requireNeMoCaches(model.encoder, encoder);
    require(model.encoder, encoder, {"pred_rnn_layers", "pred_hidden"});
    model.promptLanguage = promptLanguage(value(encoder, "prompt_dictionary"), locale);
    readTokensOfNeMoTransducer(model, encoder);
    return;
  }
  if (type.starts_with("EncDec")) {
    model.kind = SherpaModelKind::offlineNeMoTransducer;
    require(model.encoder, encoder, {"vocab_size", "subsampling_factor", "pred_rnn_layers", "pred_hidden"});
    readTokensOfNeMoTransducer(model, encoder);
    checkDurations(model, encoder);
    return;
  }
  require(model.decoder, decoder, {"vocab_size", "context_size"});
  model.kind = SherpaModelKind::offlineTransducer;
  if (encoder.contains("decode_chunk_len") || encoder.contains("T")) {
    model.kind = SherpaModelKind::onlineTransducer;
    model.transducerType = type;
    if (type == "conformer") {
      require(model.encoder, encoder,
              {"T", "num_encoder_layers", "left_context", "encoder_dim", "pad_length", "cnn_module_kernel"});
    } else if (type == "lstm") {
      require(model.encoder, encoder, {"T", "num_encoder_layers", "rnn_hidden_size", "d_model"});
    } else if (type == "zipformer") {
      require(model.encoder, encoder,
              {"T", "encoder_dims", "attention_dims", "num_encoder_layers", "cnn_module_kernels",
               "left_context_len"});
    } else if (type == "zipformer2") {
      require(model.encoder, encoder,
              {"T", "encoder_dims", "query_head_dims", "value_head_dims", "num_heads", "num_encoder_layers",
               "cnn_module_kernels", "left_context_len"});
    } else {
      failUnknown(model.encoder, type);
    }
    require(model.encoder, encoder, {"decode_chunk_len"});
  }
  readTokens(model, count(decoder, "vocab_size"));
}

void checkLanguage(const SherpaModel& model, const ONNXMetadata& metadata, std::string_view locale) {
  const auto language = languageOf(locale);
  if (language.empty()) return;
  if (!model.isMultilingual) {
    if (language != "en")
      fail(model.encoder.string() + " knows English only, so it cannot serve " + std::string(locale) + ".");
    return;
  }
  const auto known = "," + value(metadata, "all_language_codes") + ",";
  if (known.find("," + language + ",") == std::string::npos)
    fail(model.encoder.string() + " does not know the language of " + std::string(locale) + ".");
}

void readEncoderDecoder(const ModelFolder& folder, SherpaModel& model, std::string_view locale) {
  findTokens(folder, model);
  const auto encoder = metadataOf(model.encoder);
  const auto decoder = metadataOf(model.decoder);
  const auto type = value(encoder, "model_type");
  if (decoder.contains("context_size") || type.starts_with("EncDec") || isNeMoStreaming(encoder))
    failMissing(folder, "joiner.onnx");  // of a transducer
  if (type.starts_with("whisper")) {
    model.kind = SherpaModelKind::offlineWhisper;
    require(model.encoder, encoder,
            {"n_mels", "n_text_layer", "n_text_ctx", "n_text_state", "n_vocab", "sot", "eot", "blank_id",
             "translate", "transcribe", "is_multilingual", "no_speech", "no_timestamps", "sot_sequence"});
    model.isMultilingual = value(encoder, "is_multilingual") == "1";
    model.hasAlignment = encoder.contains("alignment_heads");
    if (model.isMultilingual) require(model.encoder, encoder, {"all_language_tokens", "all_language_codes"});
    checkLanguage(model, encoder, locale);
    // tokens.txt lists the tokens of text, which come before the special ones.
    const auto special = count(encoder, "eot");
    const auto all = count(encoder, "n_vocab");
    const auto found = readBase64Tokens(model).count;
    if (special && all && (found + 1 < *special || found > *all)) readTokens(model, special);
  } else if (type == "paraformer") {
    model.kind = SherpaModelKind::onlineParaformer;
    require(model.encoder, encoder,
            {"vocab_size", "lfr_window_size", "lfr_window_shift", "encoder_output_size", "decoder_num_blocks",
             "decoder_kernel_size", "neg_mean", "inv_stddev"});
    readTokens(model, count(encoder, "vocab_size"));
  } else {
    failUnknown(model.encoder, type);
  }
}

// The library refuses a language that SenseVoice does not know.
void checkLanguageOfSenseVoice(const SherpaModel& model, std::string_view locale) {
  static constexpr std::array<std::string_view, 5> known{"zh", "en", "ja", "ko", "yue"};
  const auto language = languageOf(locale);
  if (!language.empty() && std::ranges::find(known, language) == known.end())
    fail(model.model.string() + " does not know the language of " + std::string(locale) + ".");
}

void readSingle(const ModelFolder& folder, SherpaModel& model, std::string_view locale) {
  findTokens(folder, model);
  const auto metadata = metadataOf(model.model);
  const auto type = value(metadata, "model_type");
  const auto vocabulary = count(metadata, "vocab_size");
  if (type == "sense_voice_ctc") {
    model.kind = SherpaModelKind::offlineSenseVoice;
    model.isMultilingual = true;
    require(
        model.model, metadata,
        {"vocab_size", "lfr_window_size", "lfr_window_shift", "normalize_samples", "with_itn", "without_itn",
         "lang_auto", "lang_zh", "lang_en", "lang_ja", "lang_ko", "lang_yue", "neg_mean", "inv_stddev"});
    checkLanguageOfSenseVoice(model, locale);
    readTokens(model, vocabulary);
  } else if (type == "paraformer") {
    model.kind = SherpaModelKind::offlineParaformer;
    require(model.model, metadata,
            {"vocab_size", "lfr_window_size", "lfr_window_shift", "neg_mean", "inv_stddev"});
    if (!readTokens(model, vocabulary).hasEnd) fail(model.tokens.string() + " lacks the token </s>.");
  } else if (isNeMoStreaming(metadata)) {
    model.kind = SherpaModelKind::onlineNeMoCTC;
    requireNeMoCaches(model.model, metadata);
    model.subsamplingFactor = count(metadata, "subsampling_factor").value_or(0);
    readTokensOfCTC(model, vocabulary);
  } else if (type.starts_with("EncDec") && type.find("CTC") != std::string::npos) {
    model.kind = SherpaModelKind::offlineNeMoCTC;
    require(model.model, metadata, {"vocab_size", "subsampling_factor"});
    readTokensOfCTC(model, vocabulary);
  } else if (metadata.contains("decode_chunk_len") && metadata.contains("query_head_dims")) {
    model.kind = SherpaModelKind::onlineZipformerCTC;
    require(model.model, metadata,
            {"T", "encoder_dims", "value_head_dims", "num_heads", "num_encoder_layers", "cnn_module_kernels",
             "left_context_len"});
    readTokensOfCTC(model);
  } else if (type == "zipformer2_ctc") {
    model.kind = SherpaModelKind::offlineZipformerCTC;
    readTokensOfCTC(model);
  } else if (type == "wenet_ctc") {
    model.kind = SherpaModelKind::offlineWeNetCTC;
    require(model.model, metadata, {"vocab_size", "subsampling_factor"});
    readTokensOfCTC(model, vocabulary);
  } else if (type == "telespeech_ctc") {
    model.kind = SherpaModelKind::offlineTeleSpeechCTC;
    readTokensOfCTC(model);
  } else {
    failUnknown(model.model, type);
  }
}

}  // namespace

bool isStreaming(SherpaModelKind kind) {
  switch (kind) {
    case SherpaModelKind::onlineTransducer:
    case SherpaModelKind::onlineZipformerCTC:
    case SherpaModelKind::onlineNeMoCTC:
    case SherpaModelKind::onlineParaformer:
      return true;
    default:
      return false;
  }
}

std::string_view describe(SherpaModelKind kind) {
  switch (kind) {
    case SherpaModelKind::onlineTransducer:
      return "streaming transducer";
    case SherpaModelKind::onlineZipformerCTC:
      return "streaming Zipformer CTC";
    case SherpaModelKind::onlineNeMoCTC:
      return "streaming NeMo CTC";
    case SherpaModelKind::onlineParaformer:
      return "streaming Paraformer";
    case SherpaModelKind::offlineTransducer:
      return "transducer";
    case SherpaModelKind::offlineNeMoTransducer:
      return "NeMo transducer";
    case SherpaModelKind::offlineNeMoCTC:
      return "NeMo CTC";
    case SherpaModelKind::offlineZipformerCTC:
      return "Zipformer CTC";
    case SherpaModelKind::offlineWeNetCTC:
      return "WeNet CTC";
    case SherpaModelKind::offlineTeleSpeechCTC:
      return "TeleSpeech CTC";
    case SherpaModelKind::offlineParaformer:
      return "Paraformer";
    case SherpaModelKind::offlineSenseVoice:
      return "SenseVoice";
    case SherpaModelKind::offlineWhisper:
      return "Whisper";
    case SherpaModelKind::offlineMoonshine:
    case SherpaModelKind::offlineMoonshineMerged:
      return "Moonshine";
  }
  return "unknown";
}

std::string languageOf(std::string_view localeIdentifier) {
  std::string language(localeIdentifier.substr(0, localeIdentifier.find_first_of("-_")));
  for (char& c : language)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return language;
}

SherpaModel readSherpaModel(const path& directory, std::string_view localeIdentifier) {
  const ModelFolder folder(directory);
  SherpaModel model;
  if (const auto file = folder.find("bpe", {".vocab"})) model.bpeVocabulary = *file;
  const auto encoder = folder.findModel("encoder");
  const auto decoder = folder.findModel("decoder");
  const auto joiner = folder.findModel("joiner");
  const auto mergedEncoder = folder.find("encoder_model", {".ort", ".onnx"});
  const auto mergedDecoder = folder.find("decoder_model_merged", {".ort", ".onnx"});
  if (const auto preprocessor = folder.findModel("preprocess")) {
    model.kind = SherpaModelKind::offlineMoonshine;
    model.preprocessor = *preprocessor;
    model.encoder = required(folder, "encode");
    model.decoder = required(folder, "uncached_decode");
    model.cachedDecoder = required(folder, "cached_decode");
    for (const auto& file : {model.preprocessor, model.encoder, model.decoder, model.cachedDecoder})
      metadataOf(file);
    findTokens(folder, model);
    readTokens(model);
  } else if (mergedDecoder) {
    if (!mergedEncoder) failMissing(folder, "encoder_model.ort");
    model.kind = SherpaModelKind::offlineMoonshineMerged;
    model.encoder = *mergedEncoder;
    model.decoder = *mergedDecoder;
    for (const auto& file : {model.encoder, model.decoder}) checkModel(file);
    findTokens(folder, model);
    readBase64Tokens(model);
  } else if (joiner) {
    model.joiner = *joiner;
    model.encoder = required(folder, "encoder");
    readTransducer(folder, model, localeIdentifier);
  } else if (encoder && decoder) {
    model.encoder = *encoder;
    model.decoder = *decoder;
    readEncoderDecoder(folder, model, localeIdentifier);
  } else if (encoder || decoder) {
    failMissing(folder, encoder ? "decoder.onnx" : "encoder.onnx");
  } else if (mergedEncoder) {
    failMissing(folder, "decoder_model_merged.ort");
  } else if (folder.findModel("uncached_decode")) {
    failMissing(folder, "preprocess.onnx");
  } else if (const auto single = folder.findModel("model") ? folder.findModel("model") : folder.onlyModel()) {
    model.model = *single;
    readSingle(folder, model, localeIdentifier);
  } else {
    fail("The folder " + directory.string() +
         (folder.hasModels() ? " holds models of no kind that is known."
                             : " holds no model (*.onnx or *.ort)."));
  }
  return model;
}

}  // namespace palaver
