#include "platform/linux/models/SherpaModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestModels.h"

namespace palaver {
namespace {

using testing::HasSubstr;
using Metadata = std::map<std::string, std::string>;

const std::filesystem::path tones = std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models/tones";

// Writes a folder of models that consist of nothing but metadata.
class SherpaModelTest : public testing::Test {
 protected:
  void write(const std::string& name, const Metadata& metadata = {}) {
    std::ofstream file(folder.path() / name, std::ios::binary);
    file << field(7, "");
    for (const auto& [key, value] : metadata) file << field(14, field(1, key) + field(2, value));
  }

  // Writes tokens that are valid base64 too. The last one may be another.
  void writeTokens(int count, const std::string& name = "tokens.txt", const std::string& last = "") {
    std::ofstream file(folder.path() / name);
    for (int i = 0; i < count; ++i) {
      const std::string token = "abc" + std::string(1, static_cast<char>('a' + i % 26));
      file << (i + 1 == count && !last.empty() ? last : token) << ' ' << i << '\n';
    }
  }

  // Copies a model of tests/models.
  void copyModel(const std::string& name) const {
    std::filesystem::copy(tones.parent_path() / name, folder.path(),
                          std::filesystem::copy_options::recursive);
  }

  void clear() const {
    for (const auto& file : std::filesystem::directory_iterator(folder.path()))
      std::filesystem::remove(file.path());
  }

  void replaceInTokens(const std::string& from, const std::string& to) const {
    const auto file = folder.path() / "tokens.txt";
    auto text = readBytes(file);
    const auto at = text.find(from);
    ASSERT_NE(at, std::string::npos);
    std::ofstream(file, std::ios::binary) << text.replace(at, from.size(), to);
  }

  // Returns the model, which must be usable.
  SherpaModel read(const std::string& locale = "en-US") const {
    return readSherpaModel(folder.path(), locale);
  }

  // Returns why the folder is unusable.
  std::string refusal(const std::string& locale = "en-US") const {
    try {
      readSherpaModel(folder.path(), locale);
      return "(usable)";
    } catch (const UnusableModel& error) {
      return error.what();
    }
  }

  static std::string field(unsigned id, const std::string& content) {
    std::string bytes{static_cast<char>(id << 3 | 2)};
    auto size = content.size();
    for (; size >= 128; size >>= 7) bytes += static_cast<char>(size % 128 + 128);
    return bytes + static_cast<char>(size) + content;
  }

  static Metadata zipformer2() {
    return {{"model_type", "zipformer2"}, {"decode_chunk_len", "32"},  {"T", "45"},
            {"encoder_dims", "1"},        {"query_head_dims", "1"},    {"value_head_dims", "1"},
            {"num_heads", "1"},           {"num_encoder_layers", "1"}, {"cnn_module_kernels", "1"},
            {"left_context_len", "1"}};
  }

  static Metadata whisper(bool isMultilingual) {
    return {{"model_type", "whisper-tiny"},
            {"n_mels", "80"},
            {"n_text_layer", "4"},
            {"n_text_ctx", "448"},
            {"n_text_state", "384"},
            {"n_vocab", "12"},
            {"sot", "11"},
            {"eot", "10"},
            {"blank_id", "1"},
            {"translate", "1"},
            {"transcribe", "1"},
            {"is_multilingual", isMultilingual ? "1" : "0"},
            {"no_speech", "1"},
            {"no_timestamps", "1"},
            {"sot_sequence", "11"},
            {"all_language_tokens", "1,2"},
            {"all_language_codes", "en,ja"}};
  }

  const TemporaryFolder folder;
};

TEST_F(SherpaModelTest, TonesAreStreamingTransducer) {
  const auto model = readSherpaModel(tones, "ja-JP");
  EXPECT_EQ(model.kind, SherpaModelKind::onlineTransducer);
  EXPECT_TRUE(isStreaming(model.kind));
  EXPECT_TRUE(model.hasCharacterTokens);
  EXPECT_FALSE(model.hasWordPieces);
}

TEST_F(SherpaModelTest, PublishedTransducerNamesAreKnown) {
  write("encoder-epoch-99-avg-1.onnx");
  write("encoder-epoch-99-avg-1.int8.onnx");
  write("decoder-epoch-99-avg-1.onnx", {{"vocab_size", "3"}, {"context_size", "2"}});
  write("joiner-epoch-99-avg-1.int8.onnx");
  writeTokens(3);
  std::ofstream(folder.path() / "bpe.vocab") << "x";
  std::filesystem::create_directory(folder.path() / "test_wavs");
  const auto model = read();
  EXPECT_EQ(model.kind, SherpaModelKind::offlineTransducer);
  EXPECT_EQ(model.encoder.filename(), "encoder-epoch-99-avg-1.int8.onnx");
  EXPECT_EQ(model.decoder.filename(), "decoder-epoch-99-avg-1.onnx");
  EXPECT_EQ(model.bpeVocabulary.filename(), "bpe.vocab");
}

TEST_F(SherpaModelTest, StreamingTransducerIsKnownByItsChunks) {
  write("encoder-epoch-99-avg-1-chunk-16-left-128.int8.onnx", zipformer2());
  write("decoder-epoch-99-avg-1-chunk-16-left-128.onnx", {{"vocab_size", "3"}, {"context_size", "2"}});
  write("joiner-epoch-99-avg-1-chunk-16-left-128.int8.onnx");
  writeTokens(3);
  EXPECT_EQ(read().kind, SherpaModelKind::onlineTransducer);
}

TEST_F(SherpaModelTest, ParakeetIsNeMoTransducer) {
  write("encoder.int8.onnx", {{"model_type", "EncDecRNNTBPEModel"},
                              {"vocab_size", "3"},
                              {"subsampling_factor", "8"},
                              {"pred_rnn_layers", "2"},
                              {"pred_hidden", "640"}});
  write("decoder.int8.onnx");
  write("joiner.int8.onnx");
  writeTokens(4, "tokens.txt", "<blk>");
  EXPECT_EQ(read().kind, SherpaModelKind::offlineNeMoTransducer);
}

TEST_F(SherpaModelTest, EachTestModelIsOfItsKind) {
  for (const auto& model : testModels()) {
    const auto found = readSherpaModel(model.folder(), model.locale);
    EXPECT_EQ(describe(found.kind), describe(model.kind)) << model.name;
    EXPECT_EQ(found.kind, model.kind) << model.name;
  }
  EXPECT_EQ(readSherpaModel(tones, "ja-JP").transducerType, "conformer");
  EXPECT_EQ(readSherpaModel(tones.parent_path() / "streaming-nemo", "ja-JP").transducerType, "");
  EXPECT_EQ(readSherpaModel(tones.parent_path() / "streaming-nemo-ctc", "en-US").subsamplingFactor, 8U);
}

TEST_F(SherpaModelTest, TransducerWithoutJoinerLacksIt) {
  for (const std::string name : {"tones", "zipformer", "nemo-tdt", "streaming-nemo"}) {
    copyModel(name);
    for (const auto& file : std::filesystem::directory_iterator(folder.path()))
      if (file.path().filename().string().starts_with("joiner")) std::filesystem::remove(file.path());
    EXPECT_THAT(refusal(), HasSubstr("lacks joiner.onnx")) << name;
    clear();
  }
}

TEST_F(SherpaModelTest, TypeIsEnoughForTeleSpeech) {
  write("model.int8.onnx", {{"model_type", "telespeech_ctc"}});
  writeTokens(4, "tokens.txt", "<blk>");
  EXPECT_EQ(read("zh-CN").kind, SherpaModelKind::offlineTeleSpeechCTC);
}

TEST_F(SherpaModelTest, CTCModelNeedsBlank) {
  for (const std::string name : {"nemo-ctc", "zipformer-ctc", "wenet-ctc", "telespeech-ctc",
                                 "streaming-nemo-ctc", "streaming-zipformer2-ctc"}) {
    copyModel(name);
    EXPECT_EQ(refusal(), "(usable)") << name;
    replaceInTokens("<blk>", "<eps>");
    EXPECT_EQ(refusal(), "(usable)") << name;
    replaceInTokens("<eps>", "<blank>");
    EXPECT_EQ(refusal(), "(usable)") << name;
    replaceInTokens("<blank>", "<nothing>");
    EXPECT_THAT(refusal(), HasSubstr("lacks the token <blk>")) << name;
    clear();
  }
}

TEST_F(SherpaModelTest, BlankOfNeMoTransducerIsItsLastToken) {
  for (const std::string name : {"nemo-tdt", "streaming-nemo"}) {
    copyModel(name);
    replaceInTokens("<blk>", "<blank>");
    EXPECT_THAT(refusal(), HasSubstr("lacks the token <blk>")) << name;
    writeTokens(5, "tokens.txt", "<blk>");
    EXPECT_THAT(refusal(), HasSubstr("it has 5 tokens, and the model has 6")) << name;
    writeTokens(6, "tokens.txt", "<blk>");
    EXPECT_EQ(refusal(), "(usable)") << name;
    replaceInTokens("abca 0", "<blk> 0");
    replaceInTokens("<blk> 5", "abca 5");
    EXPECT_THAT(refusal(), HasSubstr("<blk> is not the last one")) << name;
    clear();
  }
}

TEST_F(SherpaModelTest, DurationsAgreeWithAddressOfModel) {
  copyModel("nemo-tdt");
  EXPECT_EQ(refusal(), "(usable)");
  const auto encoder = folder.path() / "encoder.int8.onnx";
  const auto bytes = readBytes(encoder);
  std::ofstream(encoder, std::ios::binary) << withoutMetadata(bytes, "url");
  EXPECT_THAT(refusal(), HasSubstr("joiner.int8.onnx predicts durations (TDT)"));
  // The joiner of a transducer without durations.
  std::filesystem::copy(tones.parent_path() / "streaming-nemo/joiner.int8.onnx",
                        folder.path() / "joiner.int8.onnx",
                        std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(refusal(), "(usable)");
  std::ofstream(encoder, std::ios::binary) << bytes;
  EXPECT_THAT(refusal(), HasSubstr("joiner.int8.onnx predicts no durations"));
  // One of another model.
  std::filesystem::copy(tones.parent_path() / "telespeech-ctc/model.int8.onnx",
                        folder.path() / "joiner.int8.onnx",
                        std::filesystem::copy_options::overwrite_existing);
  EXPECT_THAT(refusal(), HasSubstr("it scores 2 tokens, and the model has 6"));
}

TEST_F(SherpaModelTest, ParaformerNeedsTokenOfEnd) {
  copyModel("paraformer");
  replaceInTokens("</s>", "</x>");
  EXPECT_THAT(refusal("zh-CN"), HasSubstr("lacks the token </s>"));
}

TEST_F(SherpaModelTest, SenseVoiceServesItsLanguages) {
  copyModel("sense-voice");
  for (const char* locale : {"zh-CN", "en-US", "ja-JP", "ko-KR", "yue-Hant-HK", ""})
    EXPECT_EQ(refusal(locale), "(usable)") << locale;
  EXPECT_THAT(refusal("fr-FR"), HasSubstr("does not know the language of fr-FR"));
}

TEST_F(SherpaModelTest, CaseOfLettersIsThatOfTokens) {
  copyModel("streaming-zipformer");
  EXPECT_EQ(read().letterCase, LetterCase::lower);
  replaceInTokens("low", "Low");
  EXPECT_EQ(read().letterCase, LetterCase::both);
  std::ofstream(folder.path() / "tokens.txt") << "<blk> 0\nA 1\nB 2\nC 3\nD 4\nE 5\n<unk> 6\n";
  EXPECT_EQ(read().letterCase, LetterCase::upper);
  EXPECT_EQ(readSherpaModel(tones, "ja-JP").letterCase, LetterCase::both) << "it has no such letters";
}

TEST_F(SherpaModelTest, PromptOfNeMoHasLanguageOfLocale) {
  const auto multilingual = tones.parent_path() / "streaming-nemo-multilingual";
  for (const auto& [locale, language] : std::map<std::string, std::string>{
           {"ja-JP", "ja-JP"}, {"ja_JP", "ja-JP"}, {"en-GB", "en"}, {"fr-FR", ""}, {"", ""}})
    EXPECT_EQ(readSherpaModel(multilingual, locale).promptLanguage, language) << locale;
  EXPECT_EQ(readSherpaModel(tones.parent_path() / "streaming-nemo", "ja-JP").promptLanguage, "");
}

TEST_F(SherpaModelTest, TokensOutsideBase64AreRefused) {
  copyModel("moonshine-merged");
  EXPECT_EQ(refusal(), "(usable)");
  for (const std::string token : {"word", "abcd====", "abc", "a=bc", "\u2581abcd"}) {
    writeTokens(7, "tokens.txt", token);
    EXPECT_EQ(refusal() == "(usable)", token == "word") << token;
  }
  EXPECT_THAT(refusal(), HasSubstr("are not in base64"));

  write("tiny-encoder.int8.onnx", whisper(true));
  for (const char* name : {"encoder_model.onnx", "decoder_model_merged.onnx", "tokens.txt"})
    std::filesystem::remove(folder.path() / name);
  write("tiny-decoder.int8.onnx");
  writeTokens(10, "tiny-tokens.txt", "\u2581word");
  EXPECT_THAT(refusal(), HasSubstr("are not in base64"));
}

TEST_F(SherpaModelTest, ModelOfONNXRuntimeIsKnownByItsIdentifier) {
  copyModel("moonshine-merged-ort");
  EXPECT_EQ(refusal(), "(usable)");
  std::ofstream(folder.path() / "decoder_model_merged.ort") << "no model at all";
  EXPECT_THAT(refusal(), HasSubstr("decoder_model_merged.ort is not a model of the ONNX Runtime"));
  std::ofstream(folder.path() / "decoder_model_merged.ort") << "ORTM";
  EXPECT_THAT(refusal(), HasSubstr("decoder_model_merged.ort is not a model of the ONNX Runtime"));
}

TEST_F(SherpaModelTest, SingleModelsAreKnownByTheirType) {
  writeTokens(4, "tokens.txt", "<blk>");
  write("model.int8.onnx",
        {{"model_type", "EncDecHybridRNNTCTCBPEModel"}, {"vocab_size", "3"}, {"subsampling_factor", "8"}});
  EXPECT_EQ(read().kind, SherpaModelKind::offlineNeMoCTC);
  write("model.int8.onnx", {{"model_type", "sense_voice_ctc"},
                            {"vocab_size", "4"},
                            {"lfr_window_size", "1"},
                            {"lfr_window_shift", "1"},
                            {"normalize_samples", "1"},
                            {"with_itn", "1"},
                            {"without_itn", "1"},
                            {"lang_auto", "0"},
                            {"lang_zh", "1"},
                            {"lang_en", "1"},
                            {"lang_ja", "1"},
                            {"lang_ko", "1"},
                            {"lang_yue", "1"},
                            {"neg_mean", "1"},
                            {"inv_stddev", "1"}});
  EXPECT_EQ(read().kind, SherpaModelKind::offlineSenseVoice);
  write("model.int8.onnx", {{"model_type", "zipformer2_ctc"}});
  EXPECT_EQ(read().kind, SherpaModelKind::offlineZipformerCTC);
}

TEST_F(SherpaModelTest, MoonshineIsKnownByItsFiles) {
  for (const char* name :
       {"preprocess.onnx", "encode.int8.onnx", "uncached_decode.int8.onnx", "cached_decode.int8.onnx"})
    write(name);
  writeTokens(4);
  const auto model = read();
  EXPECT_EQ(model.kind, SherpaModelKind::offlineMoonshine);
  EXPECT_EQ(model.decoder.filename(), "uncached_decode.int8.onnx");
  EXPECT_EQ(model.cachedDecoder.filename(), "cached_decode.int8.onnx");
}

TEST_F(SherpaModelTest, WhisperServesItsLanguages) {
  write("tiny-encoder.int8.onnx", whisper(true));
  write("tiny-decoder.int8.onnx");
  writeTokens(10, "tiny-tokens.txt");
  EXPECT_EQ(read("ja-JP").kind, SherpaModelKind::offlineWhisper);
  EXPECT_TRUE(read("ja-JP").isMultilingual);
  EXPECT_THAT(refusal("fr-FR"), HasSubstr("does not know the language of fr-FR"));
}

TEST_F(SherpaModelTest, EnglishWhisperServesEnglishOnly) {
  write("tiny.en-encoder.onnx", whisper(false));
  write("tiny.en-decoder.onnx");
  writeTokens(10, "tiny.en-tokens.txt");
  EXPECT_EQ(refusal("en-GB"), "(usable)");
  EXPECT_THAT(refusal("ja-JP"), HasSubstr("English only"));
}

TEST_F(SherpaModelTest, EachMissingKeyIsNamed) {
  write("tiny-decoder.onnx");
  writeTokens(10, "tiny-tokens.txt");
  for (const auto& [key, value] : whisper(true)) {
    auto metadata = whisper(true);
    metadata.erase(key);
    write("tiny-encoder.onnx", metadata);
    if (key == "is_multilingual") continue;
    EXPECT_THAT(refusal("en-US"), HasSubstr("lacks the key " + key));
  }
}

TEST_F(SherpaModelTest, EachMissingFileIsNamed) {
  for (const char* missing : {"encoder.onnx", "decoder.onnx", "tokens.txt"}) {
    const TemporaryFolder incomplete;
    std::filesystem::copy(tones, incomplete.path());
    std::filesystem::remove(incomplete.path() / missing);
    try {
      readSherpaModel(incomplete.path(), "ja-JP");
      ADD_FAILURE() << missing;
    } catch (const UnusableModel& error) {
      EXPECT_THAT(error.what(), HasSubstr(std::string("lacks ") + missing));
    }
  }
}

TEST_F(SherpaModelTest, TokensOfOtherModelAreRefused) {
  std::filesystem::copy(tones, folder.path(), std::filesystem::copy_options::recursive);
  writeTokens(500);
  EXPECT_THAT(refusal("ja-JP"), HasSubstr("it has 500 tokens, and the model has 7"));
}

TEST_F(SherpaModelTest, DamagedTokensAreRefused) {
  std::filesystem::copy(tones, folder.path(), std::filesystem::copy_options::recursive);
  std::ofstream(folder.path() / "tokens.txt") << "a 0\nno number\n";
  EXPECT_THAT(refusal(), HasSubstr("Line 2"));
  std::filesystem::resize_file(folder.path() / "tokens.txt", 0);
  EXPECT_THAT(refusal(), HasSubstr("is empty"));
}

TEST_F(SherpaModelTest, FolderWithoutModelIsRefused) {
  EXPECT_THAT(refusal(), HasSubstr("holds no model"));
  write("surprise.onnx", {{"model_type", "tts"}});
  writeTokens(3);
  EXPECT_THAT(refusal(), HasSubstr("of the type tts, which is not supported"));
  EXPECT_THROW(readSherpaModel(folder.path() / "absent", ""), UnusableModel);
}

TEST_F(SherpaModelTest, DamagedModelIsNamed) {
  std::ofstream(folder.path() / "model.onnx") << "not a model at all";
  writeTokens(3);
  EXPECT_THAT(refusal(), HasSubstr("model.onnx is not an ONNX model or is damaged."));
}

}  // namespace
}  // namespace palaver
