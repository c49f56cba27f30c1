// Defines the behaviour behind the Speech module stand-in: it forwards to a given analysis and adds
// deviations reported only of the real framework.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/SpeechAnalysis.h"

namespace palaver {

// Switches believed deviations of the framework. All are off by default. "Public report" means unverified.
//
// Always on are the rules of reservations, which are believed to hold on every Mac. A program reserves a
// locale before it asks for its model (comment in Apple's SDK). Without the reservation an installed model is
// `supported`, a request for its installation fails with SFSpeechErrorDomain 1, and preparing an analyzer
// fails with 10. (Public reports.)
struct AnalysisQuirks {
  // finalizeAndFinishThroughEndOfInput() never returns if no audio was fed. (One public report.)
  bool finishingWithoutAudioIsNeverAnswered = false;

  // Limits the analyzers prepared concurrently. One more fails with SFSpeechErrorDomain 16 and still counts
  // until it is finished or cancelled. (Public reports: three on an iPad.)
  std::optional<std::size_t> maxPreparedAnalyzers;

  // Results that arrive before the first iteration are lost. (Public report.)
  bool unreadResultsAreLost = false;

  // AssetInventory.status returns this value regardless of the actual status. (Public report: "supported" for
  // an installed locale.)
  std::optional<AssetStatus> reportedStatus;

  // Limits reserved locales. Reserving one more fails with SFSpeechErrorDomain 11. (Public reports: 5.)
  std::size_t maxReservedLocales = 5;

  // Locales that the program has reserved in earlier runs.
  std::vector<std::string> reservedLocales = {};

  // Every reservation fails with this error. (Apple's documentation: reserve(locale:) throws.)
  std::optional<PlatformError> reservationError = std::nullopt;

  // A request for the installation of a model without reservation is null instead of an error. (Inference:
  // the request is null for an installed model, which it then cannot reserve.)
  bool unreservedRequestIsNull = false;
};

// Makes this process's framework stand-in behave as `analysis` until destroyed. One at a time. A question
// that the analysis destroys unanswered is answered as cancelled, so that no Swift task remains.
//
// Any thread, except for construction and destruction. The analysis must outlive this object.
class AnalysisBehaviour {
 public:
  explicit AnalysisBehaviour(SpeechAnalysis& analysis, AnalysisQuirks quirks = {});
  // Waits for pending questions.
  ~AnalysisBehaviour();
  AnalysisBehaviour(const AnalysisBehaviour&) = delete;
  AnalysisBehaviour& operator=(const AnalysisBehaviour&) = delete;

  // Waits until `count` analyzers count against the limit. Returns false after a time-out that slow machines
  // do not reach.
  bool waitForPreparedAnalyzers(std::size_t count) const;

  // The locales that are reserved now.
  std::set<std::string> reservedLocales() const;

  // Waits until the framework has `count` objects: transcribers, analyzers and installation requests. Returns
  // false at the deadline.
  bool waitForObjects(std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(60)) const;

 private:
  const std::shared_ptr<class AnalysisSeam> seam_;
};

}  // namespace palaver
