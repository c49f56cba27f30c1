// Fakes a speech analysis of one analyzer and records the calls that reach it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/SpeechAnalysis.h"

namespace palaver {

// Answers every call synchronously, except nextResult(): emit() and cancelResults() answer that. Confined to
// one thread.
class HandDrivenAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  std::optional<std::string> locale = "ja_JP";
  AssetStatus model = AssetStatus::installed;
  std::optional<AudioFormat> format = AudioFormat{CommonFormat::int16, 16000, 1, true};
  // The calls on the analyzer, its input and its transcriber since the last look.
  std::vector<std::string> takeCalls() { return std::exchange(calls_, {}); }

  void emit(NextResult result) { std::exchange(reader_, nullptr)(std::move(result)); }

  bool isTranscriberAvailable() const override { return true; }
  void supportedLocale(std::string_view,
                       UniqueFunction<void(std::optional<std::string>)> completion) override {
    completion(locale);
  }
  std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view, TranscriberPreset) override {
    return std::make_shared<Transcriber>(*this);
  }
  void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>&,
                                UniqueFunction<void(std::optional<AudioFormat>)> completion) override {
    completion(format);
  }
  AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>&,
                                 const std::vector<std::string>&) override {
    return {std::make_shared<Analyzer>(*this), std::make_shared<Input>(*this)};
  }
  AssetInventory& assetInventory() override { return *this; }
  void status(const std::shared_ptr<SpeechTranscriber>&,
              UniqueFunction<void(AssetStatus)> completion) override {
    completion(model);
  }
  void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>&,
                                UniqueFunction<void(InstallationRequest)> completion) override {
    completion(std::shared_ptr<AssetInstallationRequest>());
  }

 private:
  class Transcriber final : public SpeechTranscriber {
   public:
    explicit Transcriber(HandDrivenAnalysis& analysis) : analysis_(analysis) {}
    void nextResult(UniqueFunction<void(NextResult)> completion) override {
      analysis_.calls_.emplace_back("nextResult");
      analysis_.reader_ = std::move(completion);
    }
    void cancelResults() override {
      analysis_.calls_.emplace_back("cancelResults");
      if (analysis_.reader_) analysis_.emit(ResultsCancelled{});
    }

   private:
    HandDrivenAnalysis& analysis_;
  };
  class Input final : public AnalyzerInput {
   public:
    explicit Input(HandDrivenAnalysis& analysis) : analysis_(analysis) {}
    void yield(std::shared_ptr<const PCMBuffer>) override { analysis_.calls_.emplace_back("yield"); }
    void finish() override { analysis_.calls_.emplace_back("finish input"); }

   private:
    HandDrivenAnalysis& analysis_;
  };
  class Analyzer final : public SpeechAnalyzer {
   public:
    explicit Analyzer(HandDrivenAnalysis& analysis) : analysis_(analysis) {}
    void prepareToAnalyze(const AudioFormat&, FallibleCompletion completion) override {
      analysis_.calls_.emplace_back("prepare");
      completion(std::nullopt);
    }
    void finalizeAndFinishThroughEndOfInput(FallibleCompletion completion) override {
      analysis_.calls_.emplace_back("finalize");
      completion(std::nullopt);
    }
    void cancelAndFinishNow(UniqueFunction<void()> completion) override {
      analysis_.calls_.emplace_back("cancel");
      completion();
    }

   private:
    HandDrivenAnalysis& analysis_;
  };

  std::vector<std::string> calls_;
  UniqueFunction<void(NextResult)> reader_;
};

}  // namespace palaver
