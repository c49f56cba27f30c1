// Provides the macOS analysis over a framework stand-in that forwards to another analysis.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "apple-stand-ins/swift/AnalysisBehaviour.h"
#include "platform/macos/AppleSpeechAnalysis.h"
#include "tests/support/AnalysisSession.h"

namespace palaver {

template <typename Subject>
class AppleAnalysisSubject final : public SpeechAnalysisContractSubject {
 public:
  SpeechAnalysis& analysis() override { return analysis_; }
  std::string locale() override { return subject_.locale(); }
  std::vector<std::int16_t> speech() override { return subject_.speech(); }

 private:
  Subject subject_;
  AnalysisBehaviour behaviour_{subject_.analysis()};
  AppleSpeechAnalysis analysis_;
};

}  // namespace palaver
