#include "worker/sherpa/SherpaRecognition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/Recording.h"
#include "tests/support/SpeechRecognitionContract.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Tones.h"
#include "worker/sherpa/OfflineModel.h"
#include "worker/sherpa/SherpaError.h"
#include "worker/sherpa/SherpaLibrary.h"
#include "worker/sherpa/loadSherpaModel.h"

namespace palaver {
namespace {

using testing::HasSubstr;
using testing::Not;

const std::filesystem::path testData = "/usr/share/pocketsphinx/test/data";
const std::filesystem::path whisperModel = PALAVER_WHISPER_MODEL;

bool hasWhisper() {
  return std::filesystem::exists(whisperModel);
}

class TonesSubject final : public SpeechRecognitionContractSubject {
 public:
  SpeechRecognition& recognition() override { return recognition_; }
  std::string locale() override { return "ja-JP"; }
  std::vector<std::int16_t> speech() override {
    return makeTones({{0, 500}, {lowTone, 300}, {0, 300}, {highTone, 300}, {0, 400}});
  }

 private:
  SherpaRecognition recognition_{tonesModel, "ja-JP"};
};

class WhisperSubject final : public SpeechRecognitionContractSubject {
 public:
  SpeechRecognition& recognition() override { return recognition_; }
  std::string locale() override { return "en-US"; }
  std::vector<std::int16_t> speech() override { return readRecording(testData / "goforward.raw"); }

 private:
  SherpaRecognition recognition_{whisperModel, "en-US"};
};

INSTANTIATE_TEST_SUITE_P(SherpaStreaming, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<TonesSubject>(); }));

std::vector<SpeechRecognitionContractFactory> offlineSubjects() {
  if (!hasWhisper()) return {};
  return {[] { return std::make_unique<WhisperSubject>(); }};
}
// Without the model there is nothing to run.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SpeechRecognitionContract);
INSTANTIATE_TEST_SUITE_P(SherpaOffline, SpeechRecognitionContract, testing::ValuesIn(offlineSubjects()));

// Holds a request with its task and answers.
struct Conversation {
  explicit Conversation(SpeechRecognizer& recognizer, std::vector<std::string> phrases = {})
      : request(recognizer.makeRequest({.shouldReportPartialResults = true,
                                        .requiresOnDeviceRecognition = true,
                                        .taskHint = TaskHint::dictation,
                                        .contextualStrings = std::move(phrases)})),
        task(recognizer.recognitionTask(request, answers.handler())) {}

  // Ends the audio and returns the final text, or the error.
  std::string finish() {
    request->endAudio();
    const auto last = answers.waitForLast();
    if (!last) return "(no answer)";
    return last->error ? "error: " + last->error->localizedDescription() : last->result->formattedString;
  }

  std::string recognize(std::span<const std::int16_t> samples) {
    appendInBuffers(*request, samples);
    return finish();
  }

  RecordedAnswers answers;  // outlives the task
  std::shared_ptr<RecognitionRequest> request;
  std::unique_ptr<RecognitionTask> task;
};

std::string recognize(SpeechRecognition& recognition, const std::string& locale,
                      std::span<const std::int16_t> samples, std::vector<std::string> phrases = {}) {
  const auto recognizer = recognition.makeRecognizer(locale);
  Conversation conversation(*recognizer, std::move(phrases));
  return conversation.recognize(samples);
}

TEST(SherpaStreaming, TonesBecomeWordsWithTimes) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  const auto recognizer = recognition.makeRecognizer("ja-JP");
  Conversation conversation(*recognizer);
  EXPECT_EQ(
      conversation.recognize(makeTones({{0, 500}, {lowTone, 300}, {0, 300}, {middleTone, 300}, {0, 600}})),
      "低中");
  const auto last = conversation.answers.waitForLast();
  ASSERT_TRUE(last && last->result);
  ASSERT_EQ(last->result->segments.size(), 2U);
  EXPECT_NEAR(last->result->segments[0].timestamp, 0.5, 0.05);
  EXPECT_NEAR(last->result->segments[1].timestamp, 1.1, 0.05);
}

TEST(SherpaStreaming, PartialsGrow) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  const auto recognizer = recognition.makeRecognizer("ja-JP");
  Conversation conversation(*recognizer);
  conversation.recognize(makeTones({{0, 500}, {lowTone, 300}, {0, 900}, {middleTone, 300}, {0, 900}}));
  std::vector<std::string> texts;
  for (const auto& answer : conversation.answers.all())
    if (answer.result) texts.push_back(answer.result->formattedString);
  EXPECT_EQ(texts, (std::vector<std::string>{"低", "低中", "低中"}));
}

TEST(SherpaStreaming, WordAtEndOfAudioIsNotLost) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  EXPECT_EQ(recognize(recognition, "ja-JP", makeTones({{0, 500}, {highTone, 100}})), "高");
}

TEST(SherpaStreaming, HotwordMakesTheDifference) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  const auto sky = makeTones({{0, 500}, {skyTone, 300}, {0, 600}});
  EXPECT_EQ(recognize(recognition, "ja-JP", sky), "空");
  EXPECT_EQ(recognize(recognition, "ja-JP", sky, {"花"}), "花");
  EXPECT_EQ(recognize(recognition, "ja-JP", sky), "空") << "the vocabulary belongs to one request";
}

TEST(SherpaStreaming, BadHotwordIsHarmless) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  const auto sky = makeTones({{0, 500}, {skyTone, 300}, {0, 600}});
  EXPECT_EQ(recognize(recognition, "ja-JP", sky, {"空 :x", "@", "Gödel", "\x01", "山"}), "空");
  EXPECT_EQ(recognize(recognition, "ja-JP", sky, {"unknown words", "花"}), "花")
      << "a phrase that the model has no tokens for must not cost the others";
}

TEST(SherpaStreaming, ChannelsShareModelAndKeepTheirAudioApart) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  const auto first = recognition.makeRecognizer("ja-JP");
  const auto second = recognition.makeRecognizer("ja-JP");
  Conversation a(*first);
  Conversation b(*second);
  const auto low = makeTones({{0, 500}, {lowTone, 300}, {0, 300}});
  const auto high = makeTones({{0, 500}, {highTone, 300}, {0, 300}});
  for (std::size_t at = 0; at < low.size(); at += 1600) {
    const auto count = std::min<std::size_t>(1600, low.size() - at);
    a.request->append(makeSpeechBuffer(std::span(low).subspan(at, count)));
    b.request->append(makeSpeechBuffer(std::span(high).subspan(at, count)));
  }
  EXPECT_EQ(a.finish(), "低");
  EXPECT_EQ(b.finish(), "高");
}

TEST(SherpaRecognition, OtherLocaleIsNotServed) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  EXPECT_FALSE(recognition.makeRecognizer("en-US"));
  EXPECT_TRUE(recognition.makeRecognizer("ja_jp"));
}

TEST(SherpaRecognition, UnsupportedAudioEndsTaskWithError) {
  SherpaRecognition recognition(tonesModel, "ja-JP");
  const auto recognizer = recognition.makeRecognizer("ja-JP");
  Conversation conversation(*recognizer);
  conversation.request->append(
      std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::float32, 48000, 2, false}, 480));
  EXPECT_THAT(conversation.finish(), HasSubstr("16 kHz"));
  EXPECT_EQ(conversation.answers.all().size(), 1U);
}

TEST(SherpaRecognition, UnusableFolderEndsEachTaskWithItsSentence) {
  const TemporaryFolder folder;
  SherpaRecognition recognition(folder.path(), "ja-JP");
  for (int i = 0; i < 2; ++i)
    EXPECT_THAT(recognize(recognition, "ja-JP", makeTones({{lowTone, 300}})), HasSubstr("holds no model"));
  std::filesystem::copy(tonesModel, folder.path(), std::filesystem::copy_options::recursive);
  EXPECT_EQ(recognize(recognition, "ja-JP", makeTones({{0, 300}, {lowTone, 300}})), "低")
      << "a repaired model is loaded for the next task";
}

TEST(SherpaRecognition, TruncatedModelIsRefused) {
  const TemporaryFolder folder;
  std::filesystem::copy(tonesModel, folder.path());
  std::filesystem::resize_file(folder.path() / "encoder.onnx", 1000);
  SherpaRecognition recognition(folder.path(), "ja-JP");
  EXPECT_THAT(recognize(recognition, "ja-JP", makeTones({{lowTone, 300}})), HasSubstr("encoder.onnx"));
}

TEST(SherpaLibrary, MissingLibraryIsOneSentence) {
  const TemporaryFolder empty;
  try {
    SherpaLibrary::load({empty.path()});
    FAIL() << "nothing was thrown";
  } catch (const PlatformError& error) {
    EXPECT_EQ(error.code(), sherpaLibraryMissing);
    EXPECT_THAT(error.what(), HasSubstr("is not installed"));
  }
}

TEST(SherpaLibrary, FileThatIsNoLibraryIsRefused) {
  const TemporaryFolder folder;
  std::ofstream(folder.path() / SherpaLibrary::fileName) << "not a library";
  EXPECT_THROW(SherpaLibrary::load({folder.path()}), PlatformError);
}

TEST(SherpaLibrary, OtherVersionIsRefused) {
  const TemporaryFolder folder;
  std::filesystem::copy(PALAVER_FAKE_SHERPA, folder.path() / SherpaLibrary::fileName);
  try {
    SherpaLibrary::load({folder.path()});
    FAIL() << "nothing was thrown";
  } catch (const PlatformError& error) {
    EXPECT_THAT(error.what(), HasSubstr("0.0.1"));
  }
}

class Whisper : public testing::Test {
 protected:
  void SetUp() override {
    if (!hasWhisper()) GTEST_SKIP() << "the model Whisper tiny.en is not at hand; ./dev demo makes it";
  }

  static std::vector<std::int16_t> sentence(const std::string& number) {
    return readRecording(testData / "librivox" / ("sense_and_sensibility_01_austen_64kb-" + number + ".wav"));
  }

  static OfflineModel loadModel() {
    return {SherpaLibrary::load(SherpaLibrary::usualFolders()), readSherpaModel(whisperModel, "en-US"),
            "en-US"};
  }
};

// Without a second decoding, every fifth of these hears the word about fifteen times.
TEST_F(Whisper, RepeatedWordIsNotHeardWithoutEnd) {
  auto model = loadModel();
  const auto recording = readRecording(testData / "cards/004.wav");
  for (std::size_t start = 0; start < 3200; start += 266)
    EXPECT_LE(model.decode(std::span(recording).subspan(start)).words.size(), 4U) << start;
}

TEST_F(Whisper, SentenceIsRecognizedWithPunctuationAndTimes) {
  SherpaRecognition recognition(whisperModel, "en-US");
  const auto recognizer = recognition.makeRecognizer("en-US");
  Conversation conversation(*recognizer);
  const auto text = conversation.recognize(sentence("0870"));
  EXPECT_THAT(text, HasSubstr("had then leisure to consider how much there might be prudently in his power"));
  EXPECT_THAT(text, testing::EndsWith("."));
  const auto last = conversation.answers.waitForLast();
  ASSERT_TRUE(last && last->result);
  double previous = -1;
  for (const auto& segment : last->result->segments) {
    EXPECT_GT(segment.timestamp, previous) << segment.substring;
    previous = segment.timestamp;
  }
  EXPECT_EQ(last->result->segments.size(), 22U);
}

TEST_F(Whisper, FirstWordStartsWhereVoiceStarts) {
  std::vector<std::int16_t> samples(2 * 16000);
  const auto speech = readRecording(testData / "goforward.raw");
  samples.insert(samples.end(), speech.begin(), speech.end());
  SherpaRecognition recognition(whisperModel, "en-US");
  const auto recognizer = recognition.makeRecognizer("en-US");
  Conversation conversation(*recognizer);
  conversation.recognize(samples);
  const auto last = conversation.answers.waitForLast();
  ASSERT_TRUE(last && last->result && !last->result->segments.empty());
  EXPECT_GE(last->result->segments[0].timestamp, 2.0);
  EXPECT_LT(last->result->segments[0].timestamp, 3.0);
}

TEST_F(Whisper, SilenceAndNoiseYieldNoText) {
  SherpaRecognition recognition(whisperModel, "en-US");
  EXPECT_THAT(recognize(recognition, "en-US", std::vector<std::int16_t>(5 * 16000)), HasSubstr("No speech"));
  std::vector<std::int16_t> noise(5 * 16000);
  std::uint32_t random = 1;
  for (auto& sample : noise) {
    random = random * 1664525 + 1013904223;
    sample = static_cast<std::int16_t>(static_cast<std::int32_t>(random >> 16) / 16 - 2048);
  }
  const auto text = recognize(recognition, "en-US", noise);
  EXPECT_THAT(text, Not(HasSubstr("(")));
  EXPECT_THAT(text, Not(HasSubstr("[")));
}

TEST_F(Whisper, NoSamplesAreNotDecoded) {
  EXPECT_TRUE(loadModel().decode({}).words.empty());
}

TEST_F(Whisper, AudioBeyondItsLimitIsNotLost) {
  // Four sentences four times over, more than a minute without a pause for the engine to rest.
  std::vector<std::int16_t> samples;
  for (int i = 0; i < 4; ++i)
    for (const char* number : {"0870", "0880", "0890", "0930"}) {
      const auto recording = sentence(number);
      samples.insert(samples.end(), recording.begin(), recording.end());
    }
  ASSERT_GT(samples.size(), 60U * 16000);
  SherpaRecognition recognition(whisperModel, "en-US");
  const auto text = recognize(recognition, "en-US", samples);
  std::size_t count = 0;
  for (auto at = text.find("leisure"); at != std::string::npos; at = text.find("leisure", at + 1)) ++count;
  EXPECT_EQ(count, 4U) << text;
}

TEST_F(Whisper, ChannelsShareModel) {
  SherpaRecognition recognition(whisperModel, "en-US");
  const auto first = recognition.makeRecognizer("en-US");
  const auto second = recognition.makeRecognizer("en-US");
  Conversation a(*first);
  Conversation b(*second);
  appendInBuffers(*a.request, sentence("0870"));
  appendInBuffers(*b.request, readRecording(testData / "goforward.raw"));
  EXPECT_THAT(b.finish(), HasSubstr("forward"));
  EXPECT_THAT(a.finish(), HasSubstr("leisure"));
}

}  // namespace
}  // namespace palaver
