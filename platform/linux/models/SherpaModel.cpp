#include "platform/linux/models/SherpaModel.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/models/ONNXMetadata.h"

namespace palaver {

namespace {

using std::filesystem::path;

constexpr std::size_t maxFiles = 1000;              // of a folder
constexpr std::uintmax_t maxTokensSize = 64 << 20;  // bytes of tokens.txt

[[noreturn]] void fail(const std::string& sentence) {
  throw UnusableModel(sentence);
}

class Folder {
 public:
  explicit Folder(path directory) : directory_(std::move(directory)) {
    std::error_code error;
    if (!std::filesystem::is_directory(directory_, error))
      fail("There is no folder " + directory_.string() + ".");
    std::filesystem::directory_iterator entry(directory_, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
      std::error_code ignored;
      if (entry->is_regular_file(ignored)) names_.push_back(entry->path().filename().string());
      if (names_.size() > maxFiles)
        fail(directory_.string() + " holds more than 1000 files; a model has about ten.");
    }
    if (error) fail("The folder " + directory_.string() + " cannot be read: " + error.message() + ".");
    std::ranges::sort(names_);
  }

  // Returns the file whose name is `stem`, perhaps with a prefix that ends in "-", perhaps with a suffix that
  // begins with
  // "-" or ".", and one of the extensions. Prefers 8-bit weights, then the shortest name.
  std::optional<path> find(std::string_view stem, std::initializer_list<std::string_view> extensions) const {
    const std::string* best = nullptr;
    for (const auto& name : names_) {
      if (!matches(name, stem, extensions)) continue;
      if (!best || rank(name) < rank(*best)) best = &name;
    }
    return best ? std::optional(directory_ / *best) : std::nullopt;
  }

  std::optional<path> findModel(std::string_view stem) const { return find(stem, {".onnx"}); }

  // Returns the only ONNX file, preferring 8-bit weights, or none when there are others.
  std::optional<path> onlyModel() const {
    std::vector<std::string> models;
    for (const auto& name : names_)
      if (name.ends_with(".onnx")) models.push_back(name);
    if (models.size() == 2 && rank(models[1]) < rank(models[0])) std::swap(models[0], models[1]);
    if (models.size() == 1 ||
        (models.size() == 2 && rank(models[0]) < rank(models[1]) && withoutInt8(models[0]) == models[1]))
      return directory_ / models[0];
    return std::nullopt;
  }

  bool hasModels() const {
    return std::ranges::any_of(
        names_, [](const auto& name) { return name.ends_with(".onnx") || name.ends_with(".ort"); });
  }

  const path& directory() const { return directory_; }

 private:
  static bool matches(const std::string& name, std::string_view stem,
                      std::initializer_list<std::string_view> extensions) {
    const auto extension =
        std::ranges::find_if(extensions, [&](auto ending) { return name.ends_with(ending); });
    if (extension == extensions.end()) return false;
    const auto base = std::string_view(name).substr(0, name.size() - extension->size());
    for (auto at = base.find(stem); at != std::string_view::npos; at = base.find(stem, at + 1)) {
      const bool begins = at == 0 || base[at - 1] == '-';
      const auto rest = base.substr(at + stem.size());
      if (begins && (rest.empty() || rest.front() == '-' || rest.front() == '.')) return true;
    }
    return false;
  }

  static std::string withoutInt8(std::string name) {
    if (const auto at = name.find(".int8"); at != std::string::npos) name.erase(at, 5);
    return name;
  }

  static std::pair<bool, std::size_t> rank(const std::string& name) {
    return {name.find("int8") == std::string::npos, name.size()};
  }

  const path directory_;
  std::vector<std::string> names_;
};

ONNXMetadata metadataOf(const path& file) {
  try {
    return readONNXMetadata(file.string());
  } catch (const std::runtime_error& error) {
    fail(file.string() + " " + error.what() + ".");
  }
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

bool isCharacter(std::string_view token) {
  // Han, kana and Hangul take three bytes or more in UTF-8, from U+2E80.
  if (token.size() < 3) return false;
  const auto first = static_cast<unsigned char>(token[0]);
  const auto second = static_cast<unsigned char>(token[1]);
  return (first == 0xE2 && second >= 0xBA) || (first >= 0xE3 && first <= 0xED) || first == 0xEF ||
         first == 0xF0;
}

// Reads tokens.txt: lines of a token, a space and a number. Returns how many there are.
std::size_t readTokens(SherpaModel& model) {
  std::error_code error;
  const auto size = std::filesystem::file_size(model.tokens, error);
  if (error || size > maxTokensSize)
    fail(model.tokens.string() + " cannot be read or is larger than 64 MiB.");
  std::ifstream file(model.tokens, std::ios::binary);
  std::size_t lines = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.ends_with('\r')) line.pop_back();
    if (line.empty()) continue;
    ++lines;
    const auto space = line.find_last_of(" \t");
    const auto number = space == std::string::npos ? line : line.substr(space + 1);
    if (number.empty() || !std::ranges::all_of(number, [](char c) { return c >= '0' && c <= '9'; }))
      fail("Line " + std::to_string(lines) + " of " + model.tokens.string() +
           " is not a token and a number.");
    const auto token =
        space == std::string::npos ? std::string_view() : std::string_view(line).substr(0, space);
    if (isCharacter(token) && !token.starts_with("\xE2\x96\x81")) model.hasCharacterTokens = true;
    if (token.starts_with("\xE2\x96\x81")) model.hasWordPieces = true;  // U+2581 marks the start of a word
  }
  if (lines == 0) fail(model.tokens.string() + " is empty or cannot be read.");
  return lines;
}

void checkTokens(SherpaModel& model, std::optional<std::size_t> wanted, std::size_t slack = 0) {
  const auto found = readTokens(model);
  // Exports differ in whether the blank of CTC and transducers is listed or counted.
  if (wanted && (found + slack < *wanted || found > *wanted + slack))
    fail(model.tokens.string() + " belongs to another model: it has " + std::to_string(found) +
         " tokens, and the model has " + std::to_string(*wanted) + ".");
}

path required(const Folder& folder, std::string_view stem) {
  if (const auto file = folder.findModel(stem)) return *file;
  fail("The folder " + folder.directory().string() + " lacks " + std::string(stem) + ".onnx.");
}

void findTokens(const Folder& folder, SherpaModel& model) {
  const auto file = folder.find("tokens", {".txt"});
  if (!file) fail("The folder " + folder.directory().string() + " lacks tokens.txt.");
  model.tokens = *file;
}

void readTransducer(const Folder& folder, SherpaModel& model) {
  model.decoder = required(folder, "decoder");
  findTokens(folder, model);
  const auto encoder = metadataOf(model.encoder);
  const auto decoder = metadataOf(model.decoder);
  metadataOf(model.joiner);
  const auto type = value(encoder, "model_type");
  // NeMo's streaming exports have no type but the dimensions of their caches.
  if (encoder.contains("cache_last_channel_dim1")) {
    model.kind = SherpaModelKind::onlineTransducer;
    require(model.encoder, encoder,
            {"vocab_size", "window_size", "chunk_shift", "subsampling_factor", "pred_rnn_layers",
             "pred_hidden", "cache_last_channel_dim2", "cache_last_channel_dim3", "cache_last_time_dim1",
             "cache_last_time_dim2"});
    checkTokens(model, count(encoder, "vocab_size"), 1);
    return;
  }
  if (type.starts_with("EncDec")) {
    model.kind = SherpaModelKind::offlineNeMoTransducer;
    require(model.encoder, encoder, {"vocab_size", "subsampling_factor", "pred_rnn_layers", "pred_hidden"});
    checkTokens(model, count(encoder, "vocab_size"), 1);
    return;
  }
  require(model.decoder, decoder, {"vocab_size", "context_size"});
  model.kind = SherpaModelKind::offlineTransducer;
  if (encoder.contains("decode_chunk_len") || encoder.contains("T")) {
    model.kind = SherpaModelKind::onlineTransducer;
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
  checkTokens(model, count(decoder, "vocab_size"));
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

void readEncoderDecoder(const Folder& folder, SherpaModel& model, std::string_view locale) {
  findTokens(folder, model);
  const auto encoder = metadataOf(model.encoder);
  metadataOf(model.decoder);
  const auto type = value(encoder, "model_type");
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
    const auto found = readTokens(model);
    if (special && all && (found + 1 < *special || found > *all)) checkTokens(model, special);
  } else if (type == "paraformer") {
    model.kind = SherpaModelKind::onlineParaformer;
    require(model.encoder, encoder,
            {"vocab_size", "lfr_window_size", "lfr_window_shift", "encoder_output_size", "decoder_num_blocks",
             "decoder_kernel_size", "neg_mean", "inv_stddev"});
    checkTokens(model, count(encoder, "vocab_size"));
  } else {
    failUnknown(model.encoder, type);
  }
}

void readSingle(const Folder& folder, SherpaModel& model) {
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
    checkTokens(model, vocabulary);
  } else if (type == "paraformer") {
    model.kind = SherpaModelKind::offlineParaformer;
    require(model.model, metadata,
            {"vocab_size", "lfr_window_size", "lfr_window_shift", "neg_mean", "inv_stddev"});
    checkTokens(model, vocabulary);
  } else if (metadata.contains("cache_last_channel_dim1")) {
    model.kind = SherpaModelKind::onlineNeMoCTC;
    require(model.model, metadata,
            {"window_size", "chunk_shift", "subsampling_factor", "vocab_size", "cache_last_channel_dim2",
             "cache_last_channel_dim3", "cache_last_time_dim1", "cache_last_time_dim2"});
    checkTokens(model, vocabulary, 1);
  } else if (type.starts_with("EncDec") && type.find("CTC") != std::string::npos) {
    model.kind = SherpaModelKind::offlineNeMoCTC;
    require(model.model, metadata, {"vocab_size", "subsampling_factor"});
    checkTokens(model, vocabulary, 1);
  } else if (metadata.contains("decode_chunk_len") && metadata.contains("query_head_dims")) {
    model.kind = SherpaModelKind::onlineZipformerCTC;
    require(model.model, metadata,
            {"T", "encoder_dims", "value_head_dims", "num_heads", "num_encoder_layers", "cnn_module_kernels",
             "left_context_len"});
    readTokens(model);
  } else if (type == "zipformer2_ctc") {
    model.kind = SherpaModelKind::offlineZipformerCTC;
    readTokens(model);
  } else if (type == "wenet_ctc") {
    model.kind = SherpaModelKind::offlineWeNetCTC;
    require(model.model, metadata, {"vocab_size", "subsampling_factor"});
    checkTokens(model, vocabulary);
  } else if (type == "telespeech_ctc") {
    model.kind = SherpaModelKind::offlineTeleSpeechCTC;
    require(model.model, metadata, {"vocab_size", "subsampling_factor"});
    readTokens(model);
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
  const Folder folder(directory);
  SherpaModel model;
  if (const auto file = folder.find("bpe", {".vocab"})) model.bpeVocabulary = *file;
  const auto encoder = folder.findModel("encoder");
  const auto decoder = folder.findModel("decoder");
  const auto joiner = folder.findModel("joiner");
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
    const auto mergedEncoder = folder.find("encoder_model", {".ort", ".onnx"});
    if (!mergedEncoder) fail("The folder " + directory.string() + " lacks encoder_model.ort.");
    model.kind = SherpaModelKind::offlineMoonshineMerged;
    model.encoder = *mergedEncoder;
    model.decoder = *mergedDecoder;
    findTokens(folder, model);
    readTokens(model);
  } else if (joiner) {
    model.joiner = *joiner;
    model.encoder = required(folder, "encoder");
    readTransducer(folder, model);
  } else if (encoder && decoder) {
    model.encoder = *encoder;
    model.decoder = *decoder;
    readEncoderDecoder(folder, model, localeIdentifier);
  } else if (encoder || decoder) {
    fail("The folder " + directory.string() + " lacks " + (encoder ? "decoder" : "encoder") + ".onnx.");
  } else if (const auto single = folder.findModel("model") ? folder.findModel("model") : folder.onlyModel()) {
    model.model = *single;
    readSingle(folder, model);
  } else {
    fail("The folder " + directory.string() +
         (folder.hasModels() ? " holds models of no kind that is known."
                             : " holds no model (*.onnx or *.ort)."));
  }
  return model;
}

}  // namespace palaver
