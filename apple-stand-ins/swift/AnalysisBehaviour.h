// What the stand-in for the Speech module does: whatever the given analysis does, and a few things that are
// reported of the real one only.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>

#include "platform/SpeechAnalysis.h"

namespace palaver {

// Beliefs about the framework, each off unless a test wants it.
struct AnalysisQuirks {
  // finalizeAndFinishThroughEndOfInput() is never answered when no audio was ever fed. (One public report.)
  bool finishingWithoutAudioIsNeverAnswered = false;

  // So many analyzers may be prepared at once; one more fails with SFSpeechErrorDomain 16. Even the one that
  // failed counts until it is finished or cancelled. (Public reports: three on an iPad.)
  std::optional<std::size_t> maxPreparedAnalyzers;

  // Results that come before anybody iterates over them are lost. (Public report.)
  bool unreadResultsAreLost = false;

  // AssetInventory.status says so, whatever the truth is. (Public report: "supported" of an installed
  // locale.)
  std::optional<AssetStatus> reportedStatus;

  // Preparing fails with SFSpeechErrorDomain 10 until the locale has been reserved. (Public report, of some
  // releases.) Asking for an installation request reserves it (Apple's documentation), and fails with 11 when
  // that would be more than this number of locales. (Public reports: 5.)
  std::optional<std::size_t> maxReservedLocales;
};

// Makes the stand-in framework of this process behave as `analysis`, until destroyed. One at a time.
// Questions that the analysis never answers are answered as cancelled when it lets go of them, so that no
// task of Swift is left behind.
//
// Any thread, but for making and destroying it. The analysis must outlive it.
class AnalysisBehaviour {
 public:
  explicit AnalysisBehaviour(SpeechAnalysis& analysis, AnalysisQuirks quirks = {});
  // Waits until no question is being asked.
  ~AnalysisBehaviour();
  AnalysisBehaviour(const AnalysisBehaviour&) = delete;
  AnalysisBehaviour& operator=(const AnalysisBehaviour&) = delete;

  // Waits until so many analyzers count against the number allowed. False when that does not come about
  // within a time that no slow machine needs.
  bool waitForPreparedAnalyzers(std::size_t count) const;

  // Waits until the framework has so many objects: transcribers, analyzers and installation requests. False
  // when that does not come about before the deadline.
  bool waitForObjects(std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(60)) const;

 private:
  const std::shared_ptr<class AnalysisSeam> seam_;
};

}  // namespace palaver
