// Tests the contract of SpeechAnalysis on any platform.
//
// A platform provides a SpeechAnalysisContractSubject and instantiates the suite:
//
//   INSTANTIATE_TEST_SUITE_P(Simulated, SpeechAnalysisContract, testing::Values(makeSimulatedSubject));
//
// The subject's time must advance without the test: the suite blocks until answers arrive.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "platform/SpeechAnalysis.h"
#include "tests/support/AnalysisSession.h"
#include "tests/support/Awaited.h"

namespace palaver {

using SpeechAnalysisContractFactory = std::function<std::unique_ptr<SpeechAnalysisContractSubject>()>;

class SpeechAnalysisContract : public testing::TestWithParam<SpeechAnalysisContractFactory> {
 protected:
  SpeechAnalysis& analysis() { return subject_->analysis(); }

  AnalysisSession open(const std::vector<std::string>& phrases = {}) {
    auto session = makeSession(analysis(), subject_->locale(), phrases);
    EXPECT_FALSE(session.prepare());
    return session;
  }

  std::unique_ptr<SpeechAnalysisContractSubject> subject_ = GetParam()();
};

TEST_P(SpeechAnalysisContract, UnknownLocaleIsNotSupported) {
  EXPECT_EQ(askForLocale(analysis(), "not a locale"), std::nullopt);
  EXPECT_EQ(askForLocale(analysis(), ""), std::nullopt);
}

TEST_P(SpeechAnalysisContract, InstalledModelNeedsNoInstallation) {
  const auto transcriber = makeTranscriber(analysis(), subject_->locale());
  EXPECT_EQ(askForStatus(analysis(), transcriber), AssetStatus::installed);
  const auto request = askForInstallation(analysis(), transcriber);
  ASSERT_TRUE(request && std::holds_alternative<std::shared_ptr<AssetInstallationRequest>>(*request));
  EXPECT_FALSE(std::get<std::shared_ptr<AssetInstallationRequest>>(*request));
}

TEST_P(SpeechAnalysisContract, AnalyzerFormatIs16Bit16KHz) {
  const auto transcriber = makeTranscriber(analysis(), subject_->locale());
  EXPECT_EQ(askForFormat(analysis(), transcriber), (AudioFormat{CommonFormat::int16, 16000, 1, true}));
}

TEST_P(SpeechAnalysisContract, SpeechYieldsVolatileResultsAndFinal) {
  const auto session = open();
  const auto speech = subject_->speech();
  session.feed(speech);
  const auto first = session.next();
  ASSERT_TRUE(first && std::holds_alternative<TranscriptionResult>(*first)) << "while the input is open";
  EXPECT_FALSE(session.finish());
  auto read = session.readAll();
  EXPECT_TRUE(read.endWith<EndOfResults>());
  read.results.insert(read.results.begin(), std::get<TranscriptionResult>(*first));
  ASSERT_GE(read.results.size(), 2U);
  EXPECT_FALSE(read.results.front().isFinal);
  EXPECT_TRUE(read.results.back().isFinal);
  EXPECT_FALSE(read.finalText().empty());
  for (const auto& result : read.results) {
    EXPECT_FALSE(result.text.empty());
    EXPECT_GE(result.rangeStart, 0);
    EXPECT_GE(result.rangeEnd, result.rangeStart);
    EXPECT_LE(result.rangeEnd, static_cast<double>(speech.size()) / session.format.sampleRate);
  }
}

TEST_P(SpeechAnalysisContract, ResultsAreKeptUntilRead) {
  const auto session = open();
  session.feed(subject_->speech());
  EXPECT_FALSE(session.finish());
  const auto read = session.readAll();
  EXPECT_FALSE(read.finalText().empty());
  EXPECT_TRUE(read.endWith<EndOfResults>());
}

TEST_P(SpeechAnalysisContract, ReaderMayWaitForFirstResult) {
  const auto session = open();
  Awaited<NextResult> first;
  session.transcriber->nextResult(first.completion());
  session.feed(subject_->speech());
  EXPECT_FALSE(session.finish());
  const auto result = first.wait();
  ASSERT_TRUE(result && std::holds_alternative<TranscriptionResult>(*result));
  EXPECT_FALSE(session.readAll().finalText().empty());
}

TEST_P(SpeechAnalysisContract, AnalysisWithoutAudioEndsWithoutResults) {
  const auto session = open();
  Awaited<NextResult> first;
  session.transcriber->nextResult(first.completion());
  EXPECT_FALSE(session.finish());
  const auto result = first.wait();
  ASSERT_TRUE(result);
  EXPECT_TRUE(std::holds_alternative<EndOfResults>(*result));
}

TEST_P(SpeechAnalysisContract, SilenceYieldsNoText) {
  const auto session = open();
  session.feed(std::vector<std::int16_t>(1600));
  EXPECT_FALSE(session.finish());
  const auto read = session.readAll();
  EXPECT_EQ(read.finalText(), "");
  EXPECT_TRUE(read.endWith<EndOfResults>());
}

TEST_P(SpeechAnalysisContract, AudioAfterEndOfInputIsDropped) {
  const auto session = open();
  session.input->finish();
  session.feed(subject_->speech());
  EXPECT_FALSE(session.finish());
  EXPECT_TRUE(session.readAll().results.empty());
}

TEST_P(SpeechAnalysisContract, CancellingAnalysisEndsResults) {
  const auto session = open();
  session.feed(subject_->speech());
  EXPECT_TRUE(session.cancel());
  const auto read = session.readAll();
  EXPECT_TRUE(read.endWith<ResultsCancelled>());
  EXPECT_TRUE(read.results.empty()) << "unread results are dropped";
}

TEST_P(SpeechAnalysisContract, CancellingAnalysisResumesWaitingReader) {
  const auto session = open();
  Awaited<NextResult> waiting;
  session.transcriber->nextResult(waiting.completion());
  EXPECT_TRUE(session.cancel());
  const auto result = waiting.wait();
  ASSERT_TRUE(result);
  EXPECT_TRUE(std::holds_alternative<ResultsCancelled>(*result));
}

TEST_P(SpeechAnalysisContract, CancellingResultsResumesWaitingReader) {
  const auto session = open();
  Awaited<NextResult> waiting;
  session.transcriber->nextResult(waiting.completion());
  session.transcriber->cancelResults();
  const auto result = waiting.wait();
  ASSERT_TRUE(result);
  EXPECT_TRUE(std::holds_alternative<ResultsCancelled>(*result));
  EXPECT_TRUE(session.cancel());
}

TEST_P(SpeechAnalysisContract, CancelledResultsStayCancelled) {
  const auto session = open();
  session.transcriber->cancelResults();
  session.feed(subject_->speech());
  EXPECT_FALSE(session.finish()) << "the analysis continues";
  const auto read = session.readAll();
  EXPECT_TRUE(read.endWith<ResultsCancelled>());
  EXPECT_TRUE(read.results.empty());
}

TEST_P(SpeechAnalysisContract, AnalyzersRunConcurrently) {
  const auto speech = subject_->speech();
  const auto one = open();
  const auto silent = open();
  const auto other = open();
  one.feed(speech);
  silent.feed(std::vector<std::int16_t>(1600));
  other.feed(speech);
  EXPECT_FALSE(other.finish());
  EXPECT_FALSE(one.finish());
  EXPECT_FALSE(silent.finish());
  const auto text = one.readAll().finalText();
  EXPECT_FALSE(text.empty());
  EXPECT_EQ(other.readAll().finalText(), text);
  EXPECT_EQ(silent.readAll().finalText(), "");
}

TEST_P(SpeechAnalysisContract, CallsOfManyThreadsAreAllAnswered) {
  constexpr int threadCount = 4;
  constexpr int rounds = 10;
  std::atomic<int> answered = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < threadCount; ++i)
    threads.emplace_back([this, &answered] {
      for (int round = 0; round < rounds; ++round) {
        const auto transcriber = makeTranscriber(analysis(), subject_->locale());
        const auto format = askForFormat(analysis(), transcriber);
        const bool isInstalled = askForStatus(analysis(), transcriber) == AssetStatus::installed;
        const bool needsNothing = askForInstallation(analysis(), transcriber).has_value();
        const auto made = analysis().makeAnalyzer(transcriber, {});
        made.input->finish();
        if (format && isInstalled && needsNothing) ++answered;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(answered, threadCount * rounds);
}

TEST_P(SpeechAnalysisContract, Accepts100ContextualPhrases) {
  std::vector<std::string> phrases(98, "meters");
  phrases.push_back("会議の議事録");
  phrases.push_back("");
  const auto session = open(phrases);
  session.feed(subject_->speech());
  EXPECT_FALSE(session.finish());
  EXPECT_FALSE(session.readAll().finalText().empty());
}

TEST_P(SpeechAnalysisContract, OperationOutlivesItsObjects) {
  auto session = makeSession(analysis(), subject_->locale());
  Awaited<std::optional<PlatformError>> prepared;
  session.analyzer->prepareToAnalyze(session.format, prepared.completion());
  session = {};
  EXPECT_TRUE(prepared.wait());

  session = open();
  session.feed(subject_->speech());
  session.input->finish();
  Awaited<std::optional<PlatformError>> finished;
  session.analyzer->finalizeAndFinishThroughEndOfInput(finished.completion());
  session.analyzer = nullptr;
  session.input = nullptr;
  EXPECT_TRUE(finished.wait());
  EXPECT_FALSE(session.readAll().finalText().empty());
}

TEST_P(SpeechAnalysisContract, WaitingReaderIsReleasedWithPlatform) {
  auto session = open();
  Awaited<NextResult> waiting;
  session.transcriber->nextResult(waiting.completion());
  session = {};
  subject_.reset();
  EXPECT_TRUE(waiting.waitUntilLetGo());
}

}  // namespace palaver
