#include "worker/sherpa/StreamingModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "tests/support/TemporaryFolder.h"
#include "tests/support/Tones.h"

namespace palaver {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsNull;
using testing::NotNull;

// The library with some functions replaced by ones that record their calls, fail, and call the real ones.
class Recorder {
 public:
  static std::shared_ptr<SherpaLibrary> makeLibrary() {
    real_ = SherpaLibrary::load(SherpaLibrary::usualFolders());
    batches.clear();
    acceptedSamples = 0;
    failsBatches = false;
    failingStream = nullptr;
    auto library = std::make_shared<SherpaLibrary>(*real_);
    library->DecodeMultipleOnlineStreams = decodeMultiple;
    library->DecodeOnlineStream = decode;
    library->OnlineStreamAcceptWaveform = accept;
    library->CreateOnlineStream = create;
    return library;
  }

  static inline std::vector<std::int32_t> batches;  // sizes
  static inline std::int64_t acceptedSamples = 0;
  static inline bool failsBatches = false;
  static inline const SherpaOnnxOnlineStream* failingStream = nullptr;  // when it is decoded alone
  static inline const SherpaOnnxOnlineStream* newestStream = nullptr;

 private:
  static const SherpaOnnxOnlineStream* create(const SherpaOnnxOnlineRecognizer* recognizer) {
    return newestStream = real_->CreateOnlineStream(recognizer);
  }
  static void decodeMultiple(const SherpaOnnxOnlineRecognizer* recognizer,
                             const SherpaOnnxOnlineStream** streams, std::int32_t count) {
    batches.push_back(count);
    if (failsBatches) throw std::runtime_error("no batches");
    real_->DecodeMultipleOnlineStreams(recognizer, streams, count);
  }
  static void decode(const SherpaOnnxOnlineRecognizer* recognizer, const SherpaOnnxOnlineStream* stream) {
    if (stream == failingStream) throw std::runtime_error("unusable stream");
    real_->DecodeOnlineStream(recognizer, stream);
  }
  static void accept(const SherpaOnnxOnlineStream* stream, std::int32_t rate, const float* samples,
                     std::int32_t count) {
    acceptedSamples += count;
    real_->OnlineStreamAcceptWaveform(stream, rate, samples, count);
  }

  static inline std::shared_ptr<const SherpaLibrary> real_;
};

class StreamingModelTest : public testing::Test {
 protected:
  StreamingModel& load() {
    model_.emplace(library, readSherpaModel(tonesModel, "ja-JP"));
    Recorder::batches.clear();
    Recorder::acceptedSamples = 0;
    return *model_;
  }

  // Gives each transcriber its audio, as far as it wants it, and decodes those that are ready together until
  // all are finished. Returns the text of each.
  std::vector<std::string> decodeTogether(const std::vector<std::unique_ptr<Transcriber>>& transcribers,
                                          const std::vector<std::vector<std::int16_t>>& audio) {
    std::vector<std::size_t> positions(audio.size());
    for (;;) {
      std::vector<Transcriber*> ready;
      for (std::size_t i = 0; i < transcribers.size(); ++i) {
        auto& transcriber = *transcribers[i];
        auto& position = positions[i];
        while (transcriber.wantsAudio() && position < audio[i].size()) {
          const auto count = std::min<std::size_t>(1600, audio[i].size() - position);
          transcriber.append(std::span(audio[i]).subspan(position, count));
          position += count;
          if (position == audio[i].size()) transcriber.endAudio();
        }
        if (transcriber.hasWork()) ready.push_back(&transcriber);
      }
      if (ready.empty()) break;
      EXPECT_THAT(model_->work(ready), Each(IsNull()));
    }
    std::vector<std::string> texts;
    for (const auto& transcriber : transcribers) {
      EXPECT_TRUE(transcriber->isFinished());
      texts.push_back(joinedText(transcriber->words()));
    }
    return texts;
  }

  std::vector<std::string> decodeTogether(const std::vector<std::vector<std::int16_t>>& audio) {
    std::vector<std::unique_ptr<Transcriber>> transcribers;
    for (std::size_t i = 0; i < audio.size(); ++i) transcribers.push_back(model_->transcribe({}));
    return decodeTogether(transcribers, audio);
  }

  std::shared_ptr<SherpaLibrary> library = Recorder::makeLibrary();

 private:
  std::optional<StreamingModel> model_;
};

// The second one ends while the others go on.
const std::vector<std::vector<std::int16_t>> conversation{
    makeTones({{0, 500}, {lowTone, 300}, {0, 1200}, {highTone, 300}, {0, 400}, {lowTone, 200}}),
    makeTones({{0, 100}, {highTone, 300}}),
    makeTones({{0, 700}, {middleTone, 300}, {0, 500}, {middleTone, 300}, {0, 300}}),
};
const std::vector<std::string> texts{"低高低", "高", "中中"};

TEST_F(StreamingModelTest, BatchYieldsWordsOfEachStream) {
  EXPECT_GT(load().batchSize(), 1U);
  EXPECT_EQ(decodeTogether(conversation), texts);
  EXPECT_THAT(Recorder::batches, testing::Contains(3));
  EXPECT_THAT(Recorder::batches, testing::Contains(2)) << "the short one has ended";
}

TEST_F(StreamingModelTest, LibraryWithoutBatchesDecodesEachStream) {
  library->DecodeMultipleOnlineStreams = nullptr;
  EXPECT_EQ(load().batchSize(), 1U);
  EXPECT_EQ(decodeTogether(conversation), texts);
}

TEST_F(StreamingModelTest, ModelThatTakesNoBatchesDecodesEachStream) {
  Recorder::failsBatches = true;
  EXPECT_EQ(load().batchSize(), 1U);
  EXPECT_EQ(decodeTogether(conversation), texts);
  EXPECT_TRUE(Recorder::batches.empty()) << "it is not tried again";
}

TEST_F(StreamingModelTest, StreamsOfFailedBatchAreDecodedAlone) {
  auto& model = load();
  Recorder::failsBatches = true;
  EXPECT_EQ(decodeTogether(conversation), texts);
  EXPECT_EQ(model.batchSize(), 1U);
  EXPECT_EQ(Recorder::batches.size(), 1U);
}

TEST_F(StreamingModelTest, FailureOfStreamLeavesOthersOfItsBatch) {
  auto& model = load();
  Recorder::failsBatches = true;
  const auto first = model.transcribe({});
  const auto second = model.transcribe({});
  Recorder::failingStream = Recorder::newestStream;
  const auto third = model.transcribe({});
  for (const auto& transcriber : {first.get(), second.get(), third.get()})
    transcriber->append(makeTones({{0, 200}, {lowTone, 300}}));
  const std::vector<Transcriber*> batch{first.get(), second.get(), third.get()};
  EXPECT_THAT(model.work(batch), ElementsAre(IsNull(), NotNull(), IsNull()));
  EXPECT_EQ(joinedText(first->words()), "低");
  EXPECT_EQ(joinedText(third->words()), "低");
}

TEST_F(StreamingModelTest, HotwordBelongsToOneStreamOfBatch) {
  auto& model = load();
  const auto sky = makeTones({{0, 500}, {skyTone, 300}, {0, 600}});
  std::vector<std::unique_ptr<Transcriber>> transcribers;
  for (const auto& phrases : {std::vector<std::string>{}, {"花"}, {}})
    transcribers.push_back(model.transcribe(phrases));
  EXPECT_EQ(decodeTogether(transcribers, {sky, sky, sky}), (std::vector<std::string>{"空", "花", "空"}));
  EXPECT_THAT(Recorder::batches, testing::Contains(3));
}

TEST_F(StreamingModelTest, SilenceIsAddedAsFarAsQuietIsMissing) {
  load();
  for (const auto& [quiet, added] : {std::pair(0, 800), {300, 500}, {780, 20}, {800, 0}, {900, 0}}) {
    const auto audio = makeTones({{0, 200}, {lowTone, 300}, {0, quiet}});
    Recorder::acceptedSamples = 0;
    EXPECT_EQ(decodeTogether({audio}), std::vector<std::string>{"低"});
    EXPECT_EQ(Recorder::acceptedSamples - static_cast<std::int64_t>(audio.size()), 16 * added) << quiet;
  }
}

TEST_F(StreamingModelTest, NoAudioNeedsNoDecoding) {
  const auto transcriber = load().transcribe({});
  transcriber->endAudio();
  EXPECT_TRUE(transcriber->isFinished());
  EXPECT_EQ(Recorder::acceptedSamples, 0);
}

TEST_F(StreamingModelTest, AudioIsWantedUntilStepIsReady) {
  const auto transcriber = load().transcribe({});
  EXPECT_TRUE(transcriber->wantsAudio());
  transcriber->append(makeTones({{0, 1000}}));
  EXPECT_FALSE(transcriber->wantsAudio());
  EXPECT_TRUE(transcriber->hasWork());
}

TEST(SherpaLibrary, FunctionForBatchesMayBeMissing) {
  const TemporaryFolder folder;
  std::filesystem::copy(PALAVER_SHERPA_WITHOUT_BATCHES, folder.path() / SherpaLibrary::fileName);
  EXPECT_FALSE(SherpaLibrary::load({folder.path()})->DecodeMultipleOnlineStreams);
  EXPECT_TRUE(SherpaLibrary::load(SherpaLibrary::usualFolders())->DecodeMultipleOnlineStreams);
}

}  // namespace
}  // namespace palaver
