// Drives one session of a platform's speech analysis step by step. Waits for each answer and fails the test
// when none arrives.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/SpeechAnalysis.h"
#include "tests/support/Awaited.h"

namespace palaver {

class SpeechAnalysisContractSubject {
 public:
  virtual ~SpeechAnalysisContractSubject() = default;

  virtual SpeechAnalysis& analysis() = 0;

  // A locale with an installed model.
  virtual std::string locale() = 0;

  // Audio that contains speech, as 16 kHz mono samples. The subject's input format has 16 bits too.
  virtual std::vector<std::int16_t> speech() = 0;
};

// One transcriber with its analyzer.
struct AnalysisSession {
  std::shared_ptr<SpeechTranscriber> transcriber;
  AudioFormat format;
  std::shared_ptr<SpeechAnalyzer> analyzer;
  std::shared_ptr<AnalyzerInput> input;

  std::optional<NextResult> next() const {
    Awaited<NextResult> result;
    transcriber->nextResult(result.completion());
    return result.wait();
  }

  // Reads the remaining results.
  struct Results {
    std::vector<TranscriptionResult> results;
    std::optional<NextResult> end;  // none: timed out

    template <typename End>
    bool endWith() const {
      return end && std::holds_alternative<End>(*end);
    }
    std::string finalText() const {
      std::string text;
      for (const auto& result : results)
        if (result.isFinal) text += (text.empty() ? "" : " ") + result.text;
      return text;
    }
  };
  Results readAll() const {
    Results read;
    for (;;) {
      read.end = next();
      if (!read.end || !std::holds_alternative<TranscriptionResult>(*read.end)) return read;
      read.results.push_back(std::get<TranscriptionResult>(*read.end));
    }
  }

  // Feeds samples in buffers of 100 ms, like a host.
  void feed(std::span<const std::int16_t> samples) const {
    constexpr std::size_t bufferLength = 1600;
    while (!samples.empty()) {
      const auto part = samples.first(std::min(bufferLength, samples.size()));
      const auto buffer = std::make_shared<PCMBuffer>(format, static_cast<std::uint32_t>(part.size()));
      std::copy(part.begin(), part.end(), buffer->int16ChannelData());
      buffer->setFrameLength(static_cast<std::uint32_t>(part.size()));
      input->yield(buffer);
      samples = samples.subspan(part.size());
    }
  }

  // Returns the error of the operation. Fails the test when it is not answered.
  std::optional<PlatformError> prepare() const {
    Awaited<std::optional<PlatformError>> answer;
    analyzer->prepareToAnalyze(format, answer.completion());
    return answerOf(answer, "prepareToAnalyze");
  }
  std::optional<PlatformError> finish() const {
    input->finish();
    Awaited<std::optional<PlatformError>> answer;
    analyzer->finalizeAndFinishThroughEndOfInput(answer.completion());
    return answerOf(answer, "finalizeAndFinishThroughEndOfInput");
  }
  bool cancel() const {
    input->finish();
    Awaited<bool> answer;
    analyzer->cancelAndFinishNow([completion = answer.completion()] { completion(true); });
    return answer.wait().has_value();
  }

 private:
  static std::optional<PlatformError> answerOf(Awaited<std::optional<PlatformError>>& answer,
                                               const char* operation) {
    const auto error = answer.wait();
    EXPECT_TRUE(error) << operation << " is not answered";
    return error.value_or(std::nullopt);
  }
};

// The steps that create a session. Each fails the test when it is not answered.
inline std::optional<std::string> askForLocale(SpeechAnalysis& analysis, std::string_view locale) {
  Awaited<std::optional<std::string>> answer;
  analysis.supportedLocale(locale, answer.completion());
  const auto supported = answer.wait();
  EXPECT_TRUE(supported) << "supportedLocale is not answered";
  return supported.value_or(std::nullopt);
}

inline std::optional<AudioFormat> askForFormat(SpeechAnalysis& analysis,
                                               const std::shared_ptr<SpeechTranscriber>& transcriber) {
  Awaited<std::optional<AudioFormat>> answer;
  analysis.bestAvailableAudioFormat(transcriber, answer.completion());
  const auto format = answer.wait();
  EXPECT_TRUE(format) << "bestAvailableAudioFormat is not answered";
  return format.value_or(std::nullopt);
}

inline std::optional<AssetStatus> askForStatus(SpeechAnalysis& analysis,
                                               const std::shared_ptr<SpeechTranscriber>& transcriber) {
  Awaited<AssetStatus> answer;
  analysis.assetInventory().status(transcriber, answer.completion());
  return answer.wait();
}

inline std::optional<AssetInventory::InstallationRequest> askForInstallation(
    SpeechAnalysis& analysis, const std::shared_ptr<SpeechTranscriber>& transcriber) {
  Awaited<AssetInventory::InstallationRequest> answer;
  analysis.assetInventory().assetInstallationRequest(transcriber, answer.completion());
  return answer.wait();
}

inline std::shared_ptr<SpeechTranscriber> makeTranscriber(SpeechAnalysis& analysis, std::string_view locale) {
  const auto supported = askForLocale(analysis, locale);
  EXPECT_TRUE(supported) << locale << " is not supported";
  return analysis.makeTranscriber(supported.value_or(""), TranscriberPreset::progressiveTranscription);
}

// Creates an analyzer without preparing it.
inline AnalysisSession makeSession(SpeechAnalysis& analysis, std::string_view locale,
                                   const std::vector<std::string>& phrases = {}) {
  AnalysisSession session;
  session.transcriber = makeTranscriber(analysis, locale);
  const auto format = askForFormat(analysis, session.transcriber);
  EXPECT_TRUE(format) << "the analyzer has no format";
  session.format = format.value_or(AudioFormat{CommonFormat::int16, 16000, 1, true});
  auto parts = analysis.makeAnalyzer(session.transcriber, phrases);
  session.analyzer = std::move(parts.analyzer);
  session.input = std::move(parts.input);
  return session;
}

}  // namespace palaver
