// Collects the finals of a session, and writes them in a format.
#pragma once

#include <string>
#include <vector>

#include "cli/Captions.h"
#include "cli/HostObserver.h"
#include "cli/TranscribeArguments.h"

namespace palaver::cli {

// Keeps every final. Times count from the first sample.
class Transcript final : public HostObserver {
 public:
  explicit Transcript(std::string locale) : locale_(std::move(locale)) {}

  void onEvent(std::string_view line, const nlohmann::json& event) override;
  void onDiagnostic(std::string_view) override {}
  void onProblem(std::string_view) override {}
  void onStreamStart(double startedAt) override { startedAt_ = startedAt; }
  void onProgress(double, double) override {}

  // Returns the whole transcript. `format` is not text. JSON is an object:
  //
  //   {"locale": "en-US", "startedAt": 1700000000000.0,        ms since the Unix epoch, of the first sample
  //    "utterances": [{"source": "remote", "startMs": 310.0, "endMs": 6600.0, "text": "go forward"}]}
  std::string written(TranscriptFormat format) const;

 private:
  std::string locale_;
  double startedAt_ = 0;  // ms since the Unix epoch
  std::vector<Caption> captions_;
};

}  // namespace palaver::cli
