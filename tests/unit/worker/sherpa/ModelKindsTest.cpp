// Loads a model of each kind with the real library and recognizes tones with it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <span>

#include "platform/linux/models/ONNXMetadata.h"
#include "tests/support/RecordedAnswers.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestModels.h"
#include "tests/support/Tones.h"
#include "worker/sherpa/LoadedModel.h"
#include "worker/sherpa/SherpaLibrary.h"
#include "worker/sherpa/SherpaRecognition.h"
#include "worker/sherpa/loadSherpaModel.h"

namespace palaver {
namespace {

using testing::HasSubstr;

std::string joined(const TestModel& model, const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) {
    if (!text.empty() && model.locale == "en-US") text += ' ';
    text += word;
  }
  return text;
}

std::unique_ptr<LoadedModel> load(const std::filesystem::path& folder, const std::string& locale) {
  return loadSherpaModel(folder, locale, SherpaLibrary::usualFolders());
}

// Why a folder cannot be loaded, or nothing.
std::string refusal(const std::filesystem::path& folder, const std::string& locale) {
  try {
    load(folder, locale);
    return "";
  } catch (const PlatformError& error) {
    return error.what();
  }
}

// Gives each transcriber its audio in pieces of 100 ms, and decodes those that are ready together until all
// are finished.
std::vector<std::string> transcribe(LoadedModel& model, const std::vector<std::vector<std::int16_t>>& audio,
                                    const std::vector<std::string>& phrases = {}) {
  std::vector<std::unique_ptr<Transcriber>> transcribers;
  for (std::size_t i = 0; i < audio.size(); ++i) transcribers.push_back(model.transcribe(phrases));
  std::vector<std::size_t> positions(audio.size());
  for (bool isBusy = true; isBusy;) {
    isBusy = false;
    std::vector<Transcriber*> ready;
    for (std::size_t i = 0; i < audio.size(); ++i) {
      auto& transcriber = *transcribers[i];
      auto& position = positions[i];
      while (transcriber.wantsAudio() && !transcriber.hasWork() && position < audio[i].size()) {
        const auto count = std::min<std::size_t>(1600, audio[i].size() - position);
        transcriber.append(std::span(audio[i]).subspan(position, count));
        position += count;
        if (position == audio[i].size()) transcriber.endAudio();
        isBusy = true;
      }
      if (transcriber.hasWork()) ready.push_back(&transcriber);
    }
    while (!ready.empty()) {
      const auto count = std::min(ready.size(), model.batchSize());
      for (const auto& failure : model.work(std::span(ready).first(count)))
        if (failure) std::rethrow_exception(failure);
      ready.erase(ready.begin(), ready.begin() + static_cast<std::ptrdiff_t>(count));
      isBusy = true;
    }
  }
  std::vector<std::string> texts;
  for (const auto& transcriber : transcribers) {
    EXPECT_TRUE(transcriber->isFinished());
    texts.push_back(joinedText(transcriber->words()));
  }
  return texts;
}

const auto threeTones =
    makeTones({{0, 500}, {lowTone, 300}, {0, 300}, {middleTone, 300}, {0, 300}, {highTone, 300}, {0, 900}});
const auto oneTone = makeTones({{0, 700}, {middleTone, 300}, {0, 900}});

class SherpaKinds : public testing::TestWithParam<TestModel> {};

INSTANTIATE_TEST_SUITE_P(All, SherpaKinds, testing::ValuesIn(testModels()),
                         [](const auto& parameter) { return testName(parameter.param); });

TEST_P(SherpaKinds, TonesBecomeWordsAtTheirTimes) {
  const auto& model = GetParam();
  SherpaRecognition recognition(model.folder(), model.locale);
  const auto recognizer = recognition.makeRecognizer(model.locale);
  ASSERT_TRUE(recognizer);
  const auto request = recognizer->makeRequest({.shouldReportPartialResults = true,
                                                .requiresOnDeviceRecognition = true,
                                                .taskHint = TaskHint::dictation,
                                                .contextualStrings = {}});
  RecordedAnswers answers;
  const auto task = recognizer->recognitionTask(request, answers.handler());
  appendInBuffers(*request, threeTones);
  request->endAudio();
  const auto last = answers.waitForLast();
  ASSERT_TRUE(last && last->result) << (last && last->error ? last->error->localizedDescription() : "");
  EXPECT_EQ(last->result->formattedString, joined(model, model.words));
  ASSERT_EQ(last->result->segments.size(), model.words.size());
  const std::vector<double> times{0.5, 1.1, 1.7};
  for (std::size_t i = 0; i < times.size(); ++i)
    EXPECT_NEAR(last->result->segments[i].timestamp, times[i], model.hasTimes ? 0.09 : 0.5) << i;
}

TEST_P(SherpaKinds, SilenceYieldsNoText) {
  const auto model = load(GetParam().folder(), GetParam().locale);
  EXPECT_EQ(transcribe(*model, {makeTones({{0, 4000}})}), std::vector<std::string>{""});
}

// A model takes audio in chunks of its own length, so the end is tried at several places of one.
TEST_P(SherpaKinds, WordAtEndOfAudioIsNotLost) {
  const auto model = load(GetParam().folder(), GetParam().locale);
  for (int quiet = 500; quiet < 1200; quiet += 190)
    EXPECT_EQ(transcribe(*model, {makeTones({{0, quiet}, {middleTone, 150}})}),
              std::vector<std::string>{GetParam().middle})
        << quiet;
}

TEST_P(SherpaKinds, ChannelsKeepTheirAudioApart) {
  const auto& parameter = GetParam();
  const auto model = load(parameter.folder(), parameter.locale);
  const bool isTogether = isStreaming(parameter.kind);
  EXPECT_EQ(model->batchSize() > 1, isTogether);
  EXPECT_EQ(transcribe(*model, {threeTones, oneTone, makeTones({{0, 1500}}), threeTones}),
            (std::vector<std::string>{joined(parameter, parameter.words), parameter.middle, "",
                                      joined(parameter, parameter.words)}));
  EXPECT_EQ(model->batchSize() > 1, isTogether) << "a batch failed";
}

TEST_P(SherpaKinds, PhrasesOnlyChangeKindsThatTakeThem) {
  const auto& parameter = GetParam();
  const auto model = load(parameter.folder(), parameter.locale);
  const auto sky = makeTones({{0, 500}, {skyTone, 300}, {0, 900}});
  const auto plain = transcribe(*model, {sky, threeTones});
  const std::vector<std::string> phrases{"花", "unknown words", "Flower", "低 :x", "@"};
  EXPECT_EQ(transcribe(*model, {sky, threeTones}, phrases),
            parameter.hotword.empty() ? plain : (std::vector<std::string>{parameter.hotword, plain[1]}));
}

TEST_P(SherpaKinds, EachMissingFileIsNamed) {
  const auto& parameter = GetParam();
  for (const auto& file : std::filesystem::directory_iterator(parameter.folder())) {
    const auto name = file.path().filename();
    if (name == "bpe.vocab") continue;  // only hotwords need it
    const TemporaryFolder folder;
    std::filesystem::copy(parameter.folder(), folder.path());
    std::filesystem::remove(folder.path() / name);
    const auto text = name.string();
    const auto stem = text.substr(0, text.find_first_of("-."));
    const bool isOnlyModel = text.ends_with(".onnx") && stem != "encoder" && stem != "decoder" &&
                             stem != "joiner" && !parameter.name.starts_with("moonshine");
    EXPECT_THAT(refusal(folder.path(), parameter.locale),
                HasSubstr(isOnlyModel ? std::string("holds no model") : "lacks " + stem))
        << name;
  }
}

TEST_P(SherpaKinds, EachCutOffFileIsRefused) {
  const auto& parameter = GetParam();
  for (const auto& file : std::filesystem::directory_iterator(parameter.folder())) {
    if (file.path().extension() != ".onnx" && file.path().extension() != ".ort") continue;
    const TemporaryFolder folder;
    std::filesystem::copy(parameter.folder(), folder.path());
    std::filesystem::resize_file(folder.path() / file.path().filename(), file.file_size() / 2);
    EXPECT_NE(refusal(folder.path(), parameter.locale), "") << file.path().filename();
  }
}

TEST_P(SherpaKinds, EachMissingKeyIsRefusedOrNotNeeded) {
  const auto& parameter = GetParam();
  for (const auto& file : std::filesystem::directory_iterator(parameter.folder())) {
    if (file.path().extension() != ".onnx") continue;
    for (const auto& [key, value] : readONNXMetadata(file.path().string())) {
      const TemporaryFolder folder;
      std::filesystem::copy(parameter.folder(), folder.path());
      std::ofstream(folder.path() / file.path().filename(), std::ios::binary)
          << withoutMetadata(readBytes(file.path()), key);
      const bool isOptional = std::ranges::find(parameter.optionalKeys, key) != parameter.optionalKeys.end();
      EXPECT_EQ(refusal(folder.path(), parameter.locale).empty(), isOptional) << key;
    }
  }
}

TEST(SherpaStreaming, WordPiecesWithoutVocabularyTakeNoPhrases) {
  const TemporaryFolder folder;
  std::filesystem::copy(std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models/streaming-zipformer",
                        folder.path());
  std::filesystem::remove(folder.path() / "bpe.vocab");
  const auto sky = makeTones({{0, 500}, {skyTone, 300}, {0, 900}});
  EXPECT_EQ(transcribe(*load(folder.path(), "en-US"), {sky}, {"flower"}), std::vector<std::string>{"sky"});
}

TEST(SherpaStreaming, NeMoTakesLanguageOfItsLocale) {
  const auto folder = std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models/streaming-nemo-multilingual";
  EXPECT_EQ(transcribe(*load(folder, "ja-JP"), {oneTone}), std::vector<std::string>{"一"});
  EXPECT_EQ(transcribe(*load(folder, "en-GB"), {oneTone, oneTone}), (std::vector<std::string>{"one", "one"}));
  EXPECT_EQ(transcribe(*load(folder, "fr-FR"), {oneTone}), std::vector<std::string>{"一"})
      << "a language that it does not know is left to the model";
}

TEST(SherpaOffline, SenseVoiceTakesLanguageOfItsLocale) {
  const auto folder = std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models/sense-voice";
  EXPECT_EQ(transcribe(*load(folder, "ja-JP"), {oneTone}), std::vector<std::string>{"中。"});
  EXPECT_EQ(transcribe(*load(folder, "en-US"), {oneTone}), std::vector<std::string>{"middle。"});
  EXPECT_THAT(refusal(folder, "fr-FR"), HasSubstr("does not know the language of fr-FR"));
}

}  // namespace
}  // namespace palaver
