#include "worker/sherpa/ModelThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <list>
#include <stdexcept>

#include "tests/support/RecordedAnswers.h"
#include "worker/engine/JobRequest.h"

namespace palaver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Samples of a step of the fake model. The first one of a request names its transcriber.
constexpr std::size_t stepSize = 1600;

using Name = std::int16_t;
using Batch = std::vector<Name>;

// Adds a word for each step, and one for the end of the audio.
class FakeTranscriber final : public Transcriber {
 public:
  Name name() const { return name_; }
  void decode() {
    if (name_ == unusable) throw std::runtime_error("unusable audio");
    ++decoded_;
  }

  void append(std::span<const std::int16_t> samples) override {
    if (length_ == 0) name_ = samples.front();
    length_ += samples.size();
  }
  void endAudio() override { isEnded_ = true; }
  bool wantsAudio() const override { return true; }
  bool hasWork() const override { return decoded_ < length_ / stepSize + (isEnded_ ? 1 : 0); }
  void work() override { decode(); }
  std::int64_t stepLength() const override { return stepSize; }
  bool isFinished() const override { return isEnded_ && !hasWork(); }
  std::vector<SpokenWord> words() const override {
    std::vector<SpokenWord> words;
    for (std::size_t i = 0; i < decoded_; ++i) words.push_back({.text = std::to_string(i + 1)});
    return words;
  }
  std::int64_t length() const override { return static_cast<std::int64_t>(length_); }

  static constexpr Name unusable = 13;

 private:
  Name name_ = 0;
  std::size_t length_ = 0;
  std::size_t decoded_ = 0;
  bool isEnded_ = false;
};

// Records its batches, and calls the test before it decodes one.
class FakeModel final : public LoadedModel {
 public:
  using Hook = std::function<void(const Batch&)>;
  FakeModel(std::size_t batchSize, std::vector<Batch>& batches, Hook hook)
      : batchSize_(batchSize), batches_(batches), hook_(std::move(hook)) {}

  std::unique_ptr<Transcriber> transcribe(const std::vector<std::string>& /*phrases*/) override {
    return std::make_unique<FakeTranscriber>();
  }
  std::size_t batchSize() const override { return batchSize_; }
  std::vector<std::exception_ptr> work(std::span<Transcriber* const> batch) override {
    Batch names;
    for (auto* const transcriber : batch) names.push_back(static_cast<FakeTranscriber*>(transcriber)->name());
    batches_.push_back(names);
    hook_(names);
    return LoadedModel::work(batch);
  }

 private:
  const std::size_t batchSize_;
  std::vector<Batch>& batches_;
  const Hook hook_;
};

class TestChannel final : public JobChannel {
 public:
  TestChannel(ModelThread& model, Name name) : model_(model), name_(name) {}
  void start(std::shared_ptr<RecognitionJob> job) override {
    model_.start(static_cast<ModelThread::ChannelID>(name_), std::move(job));
  }
  EngineThread& thread() override { return model_.thread(); }

 private:
  ModelThread& model_;
  const Name name_;
};

// A task on a channel of its own.
struct Speech {
  Speech(ModelThread& model, Name speaker)
      : name(speaker),
        request(makeJobRequest(std::make_shared<TestChannel>(model, speaker),
                               {.shouldReportPartialResults = true,
                                .requiresOnDeviceRecognition = true,
                                .taskHint = TaskHint::dictation,
                                .contextualStrings = {}})),
        task(startTask(*request, answers.handler())) {}

  void speak(std::size_t steps) const {
    const std::vector<std::int16_t> samples(steps * stepSize, name);
    request->append(makeSpeechBuffer(samples));
  }
  std::string final() const {
    const auto last = answers.waitForLast();
    if (!last) return "(no answer)";
    return last->error ? last->error->localizedDescription() : last->result->formattedString;
  }

  const Name name;
  RecordedAnswers answers;  // outlives the task
  std::shared_ptr<RecognitionRequest> request;
  std::unique_ptr<RecognitionTask> task;
};

// Loads the model when the test lets it, so that what happens before arrives together.
class ModelThreadTest : public testing::Test {
 protected:
  void create(std::size_t batchSize) {
    thread_ = std::make_unique<ModelThread>([this, batchSize] {
      mayLoad_.wait();
      return std::make_unique<FakeModel>(batchSize, batches_, [this](const Batch& batch) {
        if (onBatch) onBatch(batch);
      });
    });
  }
  ModelThread& thread() { return *thread_; }
  Speech& speaker(int name) { return speeches_.emplace_back(*thread_, static_cast<Name>(name)); }
  void load() { mayLoad_.count_down(); }
  // Ends all tasks and the thread. Returns the batches in order.
  const std::vector<Batch>& batches() {
    if (!thread_) return batches_;
    for (auto& speech : speeches_) {
      speech.task->cancel();
      speech.request.reset();
    }
    thread_.reset();
    return batches_;
  }
  void TearDown() override { batches(); }

  FakeModel::Hook onBatch;  // called on the model's thread before a batch is decoded

 private:
  std::latch mayLoad_{1};
  std::vector<Batch> batches_;
  std::list<Speech> speeches_;  // destroyed after the thread
  std::unique_ptr<ModelThread> thread_;
};

TEST_F(ModelThreadTest, ReadyChannelsAreDecodedInOneBatch) {
  create(8);
  for (const int name : {1, 2, 3}) speaker(name).speak(1);
  auto& last = speaker(4);
  last.speak(2);
  load();
  EXPECT_TRUE(last.answers.waitForCount(2));
  EXPECT_THAT(batches(), ElementsAre(Batch{1, 2, 3, 4}, Batch{4}));
}

TEST_F(ModelThreadTest, StepIsReportedBeforeItIsDecoded) {
  create(8);
  std::vector<std::int64_t> reported;
  std::vector<std::size_t> reportedAtBatch;
  thread().reportSteps([&](std::int64_t samples) { reported.push_back(samples); });
  onBatch = [&](const Batch&) { reportedAtBatch.push_back(reported.size()); };
  auto& one = speaker(1);
  auto& two = speaker(2);
  one.speak(1);
  two.speak(2);
  load();
  EXPECT_TRUE(two.answers.waitForCount(2));
  EXPECT_THAT(batches(), ElementsAre(Batch{1, 2}, Batch{2}));
  EXPECT_THAT(reported, ElementsAre(2 * stepSize, stepSize));
  EXPECT_THAT(reportedAtBatch, ElementsAre(1, 2));
}

TEST_F(ModelThreadTest, SingleReadyChannelWaitsForNoOther) {
  create(8);
  auto& one = speaker(1);
  speaker(2);  // has no audio
  one.speak(1);
  load();
  EXPECT_TRUE(one.answers.waitForCount(1));
  EXPECT_THAT(batches(), ElementsAre(Batch{1}));
}

TEST_F(ModelThreadTest, ChannelsBeyondBatchComeNextInTurn) {
  create(2);
  std::vector<Speech*> speakers;
  for (const int name : {1, 2, 3, 4, 5}) speakers.push_back(&speaker(name));
  for (auto* const one : speakers) one->speak(2);
  load();
  for (auto* const one : speakers) EXPECT_TRUE(one->answers.waitForCount(2));
  EXPECT_THAT(batches(), ElementsAre(Batch{1, 2}, Batch{3, 4}, Batch{5, 1}, Batch{2, 3}, Batch{4, 5}));
}

TEST_F(ModelThreadTest, ModelWithoutBatchesServesOneAtATime) {
  create(1);
  auto& one = speaker(1);
  auto& two = speaker(2);
  one.speak(1);
  two.speak(1);
  load();
  EXPECT_TRUE(one.answers.waitForCount(1));
  EXPECT_TRUE(two.answers.waitForCount(1));
  EXPECT_THAT(batches(), ElementsAre(Batch{1}, Batch{2}));
}

TEST_F(ModelThreadTest, FinalWaitsForFinalsOnly) {
  create(8);
  auto& live = speaker(1);
  live.speak(1);
  for (const int name : {2, 3}) {
    auto& ended = speaker(name);
    ended.speak(1);
    ended.request->endAudio();
  }
  load();
  EXPECT_TRUE(live.answers.waitForCount(1));
  EXPECT_THAT(batches(), ElementsAre(Batch{2, 3}, Batch{2, 3}, Batch{1}));
}

TEST_F(ModelThreadTest, AudioEndedInMiddleOfBatchYieldsItsFinal) {
  create(8);
  auto& shortest = speaker(1);
  auto& longest = speaker(2);
  shortest.speak(1);
  longest.speak(3);
  std::latch isDecoding{1};
  std::latch mayGoOn{1};
  onBatch = [&, first = true](const Batch&) mutable {
    if (!std::exchange(first, false)) return;
    isDecoding.count_down();
    mayGoOn.wait();
  };
  load();
  isDecoding.wait();
  shortest.request->endAudio();
  mayGoOn.count_down();
  EXPECT_EQ(shortest.final(), "1 2");
  longest.request->endAudio();
  EXPECT_EQ(longest.final(), "1 2 3 4");
  EXPECT_THAT(batches(), ElementsAre(Batch{1, 2}, Batch{1}, Batch{2}, Batch{2}, Batch{2}));
}

TEST_F(ModelThreadTest, FailureInBatchEndsItsTaskOnly) {
  create(8);
  auto& good = speaker(1);
  auto& bad = speaker(FakeTranscriber::unusable);
  auto& other = speaker(14);
  for (auto* const one : {&good, &bad, &other}) {
    one->speak(1);
    one->request->endAudio();
  }
  load();
  EXPECT_EQ(bad.final(), "The speech engine failed: unusable audio");
  EXPECT_EQ(good.final(), "1 2");
  EXPECT_EQ(other.final(), "1 2");
}

TEST_F(ModelThreadTest, TaskCancelledInBatchIsSilentAndOthersGoOn) {
  create(8);
  auto& cancelled = speaker(1);
  auto& other = speaker(2);
  cancelled.speak(2);
  other.speak(2);
  std::atomic<int> count = 0;
  onBatch = [&](const Batch&) {
    if (++count == 1) cancelled.task->cancel();
  };
  load();
  EXPECT_TRUE(other.answers.waitForCount(2));
  EXPECT_THAT(batches(), ElementsAre(Batch{1, 2}, Batch{2}));
  EXPECT_THAT(cancelled.answers.all(), IsEmpty());
}

TEST_F(ModelThreadTest, AudioThatArrivesWhileDecodingIsDecodedNext) {
  create(8);
  auto& one = speaker(1);
  auto& two = speaker(2);
  one.speak(1);
  onBatch = [&](const Batch& batch) {
    if (batch == Batch{1} && one.answers.all().empty()) {
      two.speak(1);
      one.speak(1);
    }
  };
  load();
  EXPECT_TRUE(one.answers.waitForCount(2));
  EXPECT_TRUE(two.answers.waitForCount(1));
  EXPECT_THAT(batches(), ElementsAre(Batch{1}, Batch{2, 1}));
}

}  // namespace
}  // namespace palaver
