// Whether macOS Dictation is switched on, found out by one tiny recognition of silence.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

namespace palaver {

struct Platform;

enum class DictationAvailability { enabled, disabled, unknown };

// The verdict's name on the wire.
std::string_view wireName(DictationAvailability availability);

// The verdict of a name on the wire, or none.
std::optional<DictationAvailability> dictationAvailability(std::string_view name);

// What the user is told when Dictation is off.
inline constexpr std::string_view dictationSetupMessage =
    "macOS Dictation is disabled. Turn it on in System Settings > Keyboard > Dictation, then retry.";

// Age at which a "disabled" verdict is probed again, ms.
inline constexpr double dictationRecheckInterval = 30'000;

// Longest wait of one probe unless told otherwise, ms.
inline constexpr double dictationProbeTimeout = 2'500;

// Whether the error says that Dictation is switched off: code 1700 of any domain, or a description that names
// both "dictation" and "disabled".
bool isDictationDisabledError(const PlatformError& error);

// One instance per process, so that the verdict is found out once. Lives on the main thread.
class DictationProbe {
 public:
  explicit DictationProbe(Platform& platform) : platform_(platform) {}

  // The verdict, from the cache or from a fresh probe, which blocks for at most about `timeout` (ms).
  // Verdicts are kept for the life of the process, except that "disabled" is probed again after
  // dictationRecheckInterval.
  DictationAvailability availability(std::string_view locale, double timeout = dictationProbeTimeout);

  // The cached verdict whatever its age, or none.
  std::optional<DictationAvailability> cachedVerdict() const;

  // A live recognition failed because Dictation is off.
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
