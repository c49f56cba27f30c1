#include "worker/pocketsphinx/PocketSphinxRecognition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <sstream>

#include "tests/support/DamagedModel.h"
#include "tests/support/Recording.h"
#include "tests/support/SpeechRecognitionContract.h"

namespace palaver {
namespace {

using testing::HasSubstr;
using testing::Not;

const std::filesystem::path testData = "/usr/share/pocketsphinx/test/data";

std::vector<std::int16_t> sentence(const std::string& number) {
  return readRecording(testData / "librivox" / ("sense_and_sensibility_01_austen_64kb-" + number + ".wav"));
}

class LinuxSubject final : public SpeechRecognitionContractSubject {
 public:
  SpeechRecognition& recognition() override { return recognition_; }
  std::string locale() override { return "en-US"; }
  std::vector<std::int16_t> speech() override { return readRecording(testData / "goforward.raw"); }

 private:
  PocketSphinxRecognition recognition_;
};

INSTANTIATE_TEST_SUITE_P(Linux, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<LinuxSubject>(); }));

// Holds a request with its task and answers. The recognizer may be destroyed first.
struct Conversation {
  Conversation(SpeechRecognizer& recognizer, std::vector<std::string> phrases = {})
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

// Returns the word edit distance: insertions, deletions and substitutions.
std::size_t wordErrors(const std::string& expected, const std::string& recognized) {
  const auto split = [](const std::string& text) {
    std::istringstream stream(text);
    return std::vector<std::string>(std::istream_iterator<std::string>(stream), {});
  };
  const auto a = split(expected);
  const auto b = split(recognized);
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

class LinuxRecognition : public testing::Test {
 protected:
  PocketSphinxRecognition recognition_;
  std::unique_ptr<SpeechRecognizer> recognizer_ = recognition_.makeRecognizer("en-US");
};

TEST(PocketSphinxRecognition, NeedsNoPermission) {
  PocketSphinxRecognition recognition;
  EXPECT_EQ(recognition.authorizationStatus(), AuthorizationStatus::authorized);
  std::optional<AuthorizationStatus> answer;
  recognition.requestAuthorization([&answer](AuthorizationStatus status) { answer = status; });
  EXPECT_EQ(answer, AuthorizationStatus::authorized);
}

TEST(PocketSphinxRecognition, LocaleWithoutModelIsSupportedNotInstalled) {
  PocketSphinxRecognition recognition;
  const auto recognizer = recognition.makeRecognizer("ja-JP");
  ASSERT_TRUE(recognizer);
  EXPECT_FALSE(recognizer->supportsOnDeviceRecognition());
}

TEST(PocketSphinxRecognition, InvalidLocaleIsNotSupported) {
  PocketSphinxRecognition recognition;
  for (const char* identifier : {"", "not a locale", "../x", "en-US/"})
    EXPECT_FALSE(recognition.makeRecognizer(identifier)) << identifier;
}

TEST(PocketSphinxRecognition, ModelWithMissingFileIsNotInstalled) {
  const DamagedModel model;
  PocketSphinxRecognition recognition(model.root());
  const auto recognizer = recognition.makeRecognizer("en_us");
  EXPECT_TRUE(recognizer->supportsOnDeviceRecognition());
  for (const auto& file : model.files().all()) {
    std::filesystem::remove(file);
    EXPECT_FALSE(recognizer->supportsOnDeviceRecognition()) << file;
    model.restore(file);
  }
  EXPECT_TRUE(recognizer->supportsOnDeviceRecognition());
}

TEST_F(LinuxRecognition, RealRecordingIsRecognized) {
  EXPECT_EQ(Conversation(*recognizer_).recognize(readRecording(testData / "goforward.raw")),
            "go forward ten meters");
}

// The recognizer adapts to the single voice. At most 5 of the 16 words are wrong.
TEST_F(LinuxRecognition, LongerReadingHasAtMost5WordErrors) {
  const std::pair<const char*, const char*> sentences[] = {
      {"0880", "he was not an ill disposed young man"},
      {"0930", "he might even have been made amiable himself"}};
  std::size_t errors = 0;
  for (const auto& [number, words] : sentences)
    errors += wordErrors(words, Conversation(*recognizer_).recognize(sentence(number)));
  EXPECT_LE(errors, 5U);
}

TEST_F(LinuxRecognition, PartialsChangeTowardsFinal) {
  Conversation conversation(*recognizer_);
  conversation.recognize(readRecording(testData / "goforward.raw"));
  const auto answers = conversation.answers.all();
  std::string previous;
  for (std::size_t i = 0; i + 1 < answers.size(); ++i) {
    ASSERT_TRUE(answers[i].result);
    const auto& result = *answers[i].result;
    EXPECT_NE(result.formattedString, previous) << "only changed texts are reported";
    EXPECT_NE(result.formattedString, "");
    std::string joined;
    for (const auto& segment : result.segments) joined += (joined.empty() ? "" : " ") + segment.substring;
    EXPECT_EQ(joined, result.formattedString);
    previous = result.formattedString;
  }
  EXPECT_GE(answers.size(), 4U);
}

TEST_F(LinuxRecognition, ContextualPhrasesImproveRecognition) {
  const auto recording = sentence("0870");
  const std::string words =
      "and mister john dashwood had then leisure to consider how much there might be prudently in his power "
      "to do for them";
  const std::string without = Conversation(*recognizer_).recognize(recording);
  ASSERT_THAT(without, Not(HasSubstr("prudently")));

  const auto recognizerWithPhrases = recognition_.makeRecognizer("en-US");
  const std::string with =
      Conversation(*recognizerWithPhrases, {"Mister John Dashwood", "prudently", "leisure to consider"})
          .recognize(recording);
  EXPECT_THAT(with, HasSubstr("prudently"));
  EXPECT_LT(wordErrors(words, with), wordErrors(words, without));

  // The newest request determines the vocabulary of a recognizer.
  EXPECT_THAT(Conversation(*recognizerWithPhrases).recognize(recording), Not(HasSubstr("prudently")));
}

TEST_F(LinuxRecognition, UnusualVocabularyIsHarmless) {
  std::vector<std::string> many;
  for (int i = 0; i < 100; ++i) {
    std::string phrase;
    for (int k = 0; k < 4; ++k) {
      for (int c = 0; c < 3 + (i * k) % 7; ++c)
        phrase += static_cast<char>('a' + (i * 31 + k * 17 + c * 5) % 26);
      phrase += ' ';
    }
    many.push_back(phrase);
  }
  std::string endless;
  while (endless.size() < 10000) endless += "round and round the ragged rock ";
  const std::vector<std::vector<std::string>> vocabularies = {
      {""},
      {" ", "\n", "...", "\"", "'", "\\data\\", "<s>", "</s>", "\\end\\", "<unk>", "[NOISE]", "a(2)",
       "-1.0 x"},
      {"東京スカイツリー", "会議", std::string("\xff\xfe\x00z", 4), "naïve"},
      {"line one\nline two\r\n\\1-grams:\n-9 evil", "\"quoted\" 'words' %s%n"},
      {std::string(10000, 'x'), endless, std::string(10000, ' ')},
      {"brrr", "zzzz", "x", "the the the", "the"},
      many};
  const auto recording = readRecording(testData / "goforward.raw");
  for (std::size_t i = 0; i < vocabularies.size(); ++i)
    EXPECT_EQ(Conversation(*recognizer_, vocabularies[i]).recognize(recording), "go forward ten meters") << i;
}

TEST_F(LinuxRecognition, ConcurrentRecognizersKeepAudioApart) {
  const std::pair<std::vector<std::int16_t>, std::string> channels[] = {
      {readRecording(testData / "goforward.raw"), "go forward ten meters"},
      {readRecording(testData / "something.raw"), "go somewhere and do something"}};
  constexpr std::size_t count = 6;  // one more than an engine thread serves
  std::vector<std::unique_ptr<SpeechRecognizer>> recognizers;
  std::list<Conversation> conversations;
  for (std::size_t i = 0; i < count; ++i) {
    recognizers.push_back(recognition_.makeRecognizer("en-US"));
    conversations.emplace_back(*recognizers.back());
  }
  // Feeds the recognizers in turns of one second.
  for (std::size_t start = 0; start < 3 * 16000; start += 16000) {
    std::size_t i = 0;
    for (auto& conversation : conversations) {
      const std::span samples(channels[i++ % 2].first);
      if (start < samples.size())
        appendInBuffers(*conversation.request,
                        samples.subspan(start, std::min<std::size_t>(16000, samples.size() - start)));
    }
  }
  std::size_t i = 0;
  for (auto& conversation : conversations) EXPECT_EQ(conversation.finish(), channels[i++ % 2].second);
}

TEST_F(LinuxRecognition, OverlappingTasksRunInTurn) {
  Conversation first(*recognizer_);
  Conversation second(*recognizer_);
  const auto recording = readRecording(testData / "goforward.raw");
  appendInBuffers(*second.request, recording);
  appendInBuffers(*first.request, recording);
  second.request->endAudio();
  EXPECT_EQ(first.finish(), "go forward ten meters");
  EXPECT_EQ(second.finish(), "go forward ten meters");
}

TEST_F(LinuxRecognition, DestroyingRequestEndsAudio) {
  Conversation conversation(*recognizer_);
  appendInBuffers(*conversation.request, readRecording(testData / "goforward.raw"));
  conversation.request.reset();
  const auto last = conversation.answers.waitForLast();
  ASSERT_TRUE(last && last->result);
  EXPECT_EQ(last->result->formattedString, "go forward ten meters");
}

TEST_F(LinuxRecognition, CancellingDropsLongBacklogImmediately) {
  // The backlog is six hours of speech. Decoding it would take a large part of an hour.
  const auto speech = makeSpeechBuffer(sentence("0870"));
  Conversation abandoned(*recognizer_);
  for (int i = 0; i < 3000; ++i) abandoned.request->append(speech);
  ASSERT_TRUE(abandoned.answers.waitForCount(1));
  abandoned.task->cancel();
  Conversation next(*recognizer_);
  next.request->endAudio();
  EXPECT_TRUE(next.answers.waitForLast());
  EXPECT_FALSE(abandoned.answers.all().back().isLast());
}

TEST_F(LinuxRecognition, HandlerIsReleasedWithTask) {
  for (const bool isCancelled : {false, true}) {
    const auto request = recognizer_->makeRequest({});
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> observed = held;
    const auto task = recognizer_->recognitionTask(request, [held = std::move(held)](auto, auto) {});
    if (isCancelled) {
      task->cancel();
    } else {
      request->endAudio();
    }
    EXPECT_EQ(Conversation(*recognizer_).finish(), "error: No speech detected");
    EXPECT_TRUE(observed.expired()) << isCancelled;
  }
}

TEST_F(LinuxRecognition, ThrowingHandlerIsHarmless) {
  const auto request = recognizer_->makeRequest({});
  const auto task =
      recognizer_->recognitionTask(request, [](auto, auto) { throw std::runtime_error("handler"); });
  request->endAudio();
  EXPECT_EQ(Conversation(*recognizer_).recognize(readRecording(testData / "goforward.raw")),
            "go forward ten meters");
}

TEST_F(LinuxRecognition, AudioOfOtherFormatIsError) {
  for (const AudioFormat& format : {AudioFormat{CommonFormat::float32, 16000, 1, false},
                                    AudioFormat{CommonFormat::int16, 48000, 1, false},
                                    AudioFormat{CommonFormat::int16, 16000, 2, true}}) {
    Conversation conversation(*recognizer_);
    auto buffer = std::make_shared<PCMBuffer>(format, 1600);
    buffer->setFrameLength(1600);
    conversation.request->append(buffer);
    EXPECT_THAT(conversation.finish(), HasSubstr("16 kHz"));
  }
  EXPECT_EQ(Conversation(*recognizer_).recognize(readRecording(testData / "goforward.raw")),
            "go forward ten meters");
}

TEST_F(LinuxRecognition, EmptyBufferIsIgnored) {
  Conversation conversation(*recognizer_);
  conversation.request->append(makeSpeechBuffer({}));
  conversation.request->append(nullptr);
  EXPECT_EQ(conversation.recognize(readRecording(testData / "goforward.raw")), "go forward ten meters");
}

// Destroys the handles while the engine is decoding, in several orders.
TEST(PocketSphinxRecognition, HandlesMayBeDestroyedInAnyOrder) {
  const auto speech = sentence("0930");
  for (int order = 0; order < 24; order += 5) {
    RecordedAnswers answers;
    auto recognition = std::make_unique<PocketSphinxRecognition>();
    auto recognizer = recognition->makeRecognizer("en-US");
    auto request = recognizer->makeRequest({});
    auto task = recognizer->recognitionTask(request, answers.handler());
    appendInBuffers(*request, speech);
    if (order == 0) answers.waitForCount(1);
    std::vector<std::function<void()>> releases = {[&] { recognition.reset(); }, [&] { recognizer.reset(); },
                                                   [&] { request.reset(); }, [&] { task.reset(); }};
    std::vector<int> places = {0, 1, 2, 3};
    for (int i = 0; i < order; ++i) std::ranges::next_permutation(places);
    for (const int place : places) releases[static_cast<std::size_t>(place)]();
  }
}

TEST(PocketSphinxRecognition, RecognizerMayBeDestroyedInItsHandler) {
  auto recognition = std::make_unique<PocketSphinxRecognition>();
  std::shared_ptr<SpeechRecognizer> recognizer = recognition->makeRecognizer("en-US");
  auto request = recognizer->makeRequest({});
  RecordedAnswers answers;
  auto task = recognizer->recognitionTask(
      request, [recognizer, record = answers.handler()](auto result, auto error) { record(result, error); });
  recognizer.reset();
  recognition.reset();
  task.reset();
  request->endAudio();
  request.reset();
  EXPECT_TRUE(answers.waitForLast());
}

// Other damage may end the process. The speech worker's tests have it.
TEST(DamagedModelRecognition, EmptyFileIsErrorAndRepairedModelServesNextTask) {
  const DamagedModel model;
  PocketSphinxRecognition recognition(model.root());
  const auto recognizer = recognition.makeRecognizer("en-US");
  for (const auto& file : model.files().all()) {
    model.replace(file, "");
    Conversation conversation(*recognizer);
    EXPECT_EQ(conversation.finish(), "error: " + file.filename().string() + " is empty or not a file");
    const auto answers = conversation.answers.all();
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].error->domain(), "PocketSphinx");
    EXPECT_EQ(answers[0].error->code(), 1);
    model.restore(file);
  }
  EXPECT_EQ(Conversation(*recognizer).recognize(readRecording(testData / "goforward.raw")),
            "go forward ten meters");
}

}  // namespace
}  // namespace palaver
