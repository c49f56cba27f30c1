// Tests one channel without a backend: its errors, and the calls that end its analysis.
#include "analyzer/SpeechAnalyzerChannel.h"

#include <gmock/gmock.h>

#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <exception>

#include "tests/unit/analyzer/HandDrivenAnalysis.h"
#include "tests/unit/core/Fakes.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SpeechAnalyzerChannelTest : public testing::Test {
 protected:
  // Creates the channel. Returns domain, code and text of the error, or "none".
  std::string make() {
    std::string error = "none";
    asio::co_spawn(
        executor,
        SpeechAnalyzerChannel::make(executor, platform, writer, "a", AudioSource::remote, "ja-JP", {}),
        [&](const std::exception_ptr& failure, std::shared_ptr<SpeechAnalyzerChannel> made) {
          channel = std::move(made);
          try {
            if (failure) std::rethrow_exception(failure);
          } catch (const PlatformError& thrown) {
            error = thrown.domain() + "#" + std::to_string(thrown.code()) + " " + thrown.what();
          }
        });
    run();
    return error;
  }
  // Calls finish() or cancel() and waits for its end. False when it does not end.
  bool end(asio::awaitable<void> (SpeechAnalyzerChannel::*how)()) {
    bool ended = false;
    asio::co_spawn(executor, (*channel.*how)(), [&ended](const std::exception_ptr&) { ended = true; });
    run();
    return ended;
  }

  // Runs what is ready.
  void run() {
    context.restart();
    context.poll();
  }

  asio::io_context context;  // outlives the coroutines that wait for the analysis
  struct : FakePlatform {
    HandDrivenAnalysis speechAnalysis;
  } fake;
  HandDrivenAnalysis& analysis = fake.speechAnalysis;
  Platform platform = platformOf(fake);
  JSONLineWriter writer{fake.clock, fake.standardOutput, fake.standardError};
  SerialExecutor executor{asio::any_io_executor(context.get_executor())};
  std::shared_ptr<SpeechAnalyzerChannel> channel;
};

TEST_F(SpeechAnalyzerChannelTest, UnsupportedLocaleIsError10) {
  analysis.locale.reset();
  EXPECT_EQ(make(), "PalaverSTT#10 Unsupported SpeechAnalyzer locale: ja-JP");
}

TEST_F(SpeechAnalyzerChannelTest, MissingModelIsError11) {
  for (const auto model : {AssetStatus::unsupported, AssetStatus::supported, AssetStatus::downloading}) {
    analysis.model = model;
    EXPECT_EQ(make(),
              "PalaverSTT#11 SpeechAnalyzer model is not installed; run npm run helper:install-model");
  }
}

TEST_F(SpeechAnalyzerChannelTest, MissingAudioFormatIsError12) {
  analysis.format.reset();
  EXPECT_EQ(make(), "PalaverSTT#12 No SpeechAnalyzer-compatible audio format is available");
}

TEST_F(SpeechAnalyzerChannelTest, ResultsAreReadFromStart) {
  EXPECT_EQ(make(), "none");
  EXPECT_THAT(analysis.takeCalls(), ElementsAre("prepare", "nextResult"));
}

TEST_F(SpeechAnalyzerChannelTest, CancelEndsInputThenAnalysisThenResults) {
  make();
  analysis.takeCalls();
  EXPECT_TRUE(end(&SpeechAnalyzerChannel::cancel));
  EXPECT_THAT(analysis.takeCalls(), ElementsAre("finish input", "cancel", "cancelResults"));
}

// An analyzer that emits nothing when it is cancelled would keep the result loop, and the channel, for ever.
TEST_F(SpeechAnalyzerChannelTest, CancelledChannelIsReleased) {
  make();
  EXPECT_TRUE(end(&SpeechAnalyzerChannel::cancel));
  const std::weak_ptr<SpeechAnalyzerChannel> released = std::exchange(channel, nullptr);
  run();
  EXPECT_TRUE(released.expired());
}

TEST_F(SpeechAnalyzerChannelTest, FinishEndsWithResultsNotBefore) {
  make();
  analysis.takeCalls();
  EXPECT_FALSE(end(&SpeechAnalyzerChannel::finish));
  EXPECT_THAT(analysis.takeCalls(), ElementsAre("finish input", "finalize"));
  analysis.emit(TranscriptionResult{"last", 0, 0, true});
  run();
  EXPECT_THAT(analysis.takeCalls(), ElementsAre("nextResult"));
  EXPECT_THAT(fake.standardOutput.text(), ::testing::HasSubstr("\"text\":\"last\""));
  analysis.emit(EndOfResults{});
  run();
  EXPECT_THAT(analysis.takeCalls(), IsEmpty());
  EXPECT_TRUE(end(&SpeechAnalyzerChannel::finish)) << "the results have ended";
}

TEST_F(SpeechAnalyzerChannelTest, UtteranceIdHasWholeMillisecondsUpToLargestInteger) {
  make();
  // Seconds, and milliseconds in the id. The second one is exactly 2^63 ms.
  const std::pair<double, const char*> cases[] = {{0.9999, "999"},
                                                  {5e15, "5000000000000000000"},
                                                  {9223372036854776.0, "9223372036854775807"},
                                                  {1e16, "9223372036854775807"},
                                                  {1e30, "9223372036854775807"}};
  for (const auto& [seconds, milliseconds] : cases) {
    analysis.emit(TranscriptionResult{"words", seconds, seconds, false});
    run();
    const auto written = fake.standardOutput.text();
    EXPECT_TRUE(written.ends_with(std::string("-") + milliseconds + "\"}\n")) << seconds << ": " << written;
  }
}

}  // namespace
}  // namespace palaver
