// Probes whether macOS Dictation is on by recognizing a short silent buffer.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

struct Platform;

enum class DictationAvailability { enabled, disabled, unknown };

std::string_view wireName(DictationAvailability availability);

// Parses a verdict's name on the wire. Returns none for any other text.
std::optional<DictationAvailability> dictationAvailability(std::string_view name);

// Text for the user when Dictation is off.
inline constexpr std::string_view dictationSetupMessage =
    "macOS Dictation is disabled. Turn it on in System Settings > Keyboard > Dictation, then retry.";

// Age after which a "disabled" verdict is probed again, ms.
inline constexpr double dictationRecheckInterval = 30'000;

// Default limit of one probe's wait, ms.
inline constexpr double dictationProbeTimeout = 2'500;

// Returns whether the error means that Dictation is off: code 1700 of any domain, or a description that
// contains both "dictation" and "disabled".
bool isDictationDisabledError(const PlatformError& error);

// Caches the verdict. Create one instance per process, so that it is probed once. Main thread only.
class DictationProbe {
 public:
  explicit DictationProbe(Platform& platform) : platform_(platform) {}

  // Returns the cached verdict, or probes, which blocks for about `timeout` ms at most. Verdicts are kept for
  // the life of the process, except that "disabled" is probed again after dictationRecheckInterval.
  DictationAvailability availability(std::string_view locale, double timeout = dictationProbeTimeout);

  // Returns the cached verdict regardless of its age, or none.
  std::optional<DictationAvailability> cachedVerdict() const;

  // Records that a live recognition failed because Dictation is off.
  void recordDisabled();

 private:
  struct Verdict {
    DictationAvailability availability;
    double checkedAt;  // ms since the Unix epoch
  };

  DictationAvailability probe(std::string_view locale, double timeout);
  std::shared_ptr<PCMBuffer> makeSilentBuffer(double milliseconds);

  Platform& platform_;
  std::optional<Verdict> cached_;
};

}  // namespace palaver
