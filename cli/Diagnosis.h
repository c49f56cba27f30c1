// Tells from what a helper says why a meeting would have no transcript, and what to do about it.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/CodeSignature.h"

namespace palaver::cli {

// How loud a recording is, in 100 ms pieces.
enum class Loudness {
  silent,  // every sample is 0: the host sends no microphone at all
  quiet,   // below the helper's threshold for voice: nothing is ever recognized
  voiced,
};

struct CheckedSound {
  std::string path;
  Loudness loudness = Loudness::silent;
  double loudest = 0;  // root mean square of the loudest 100 ms, full scale 1
};

// What was seen. Members are in the order in which they were found out; a failure leaves the later ones
// empty.
struct Examination {
  enum class System { macOS, linux };

  System system = System::macOS;
  std::string helper;                  // path
  std::string locale;                  // of the session that was tried
  bool isFile = false;                 // there is a regular file
  bool isExecutable = false;           // and this user may run it
  std::string startError;              // why it could not be started; empty: it was
  std::string end;                     // how it ended before it had answered; empty: it did not
  bool isComplete = false;             // the session was tried to its end
  std::vector<nlohmann::json> events;  // of a session with one quiet chunk of audio
  std::vector<CheckedSound> sounds;
  std::optional<CodeSignature> signature;  // of the helper; none where the system signs no programs
};

// One verdict, and one step.
struct Diagnosis {
  std::string code;     // stable; "ready" when all is well
  std::string verdict;  // a sentence
  std::string step;     // a sentence: what to do next

  bool isReady() const { return code == "ready"; }
};

Diagnosis diagnose(const Examination& examination);

// Returns the newest status before the session, or null.
nlohmann::json statusOf(const Examination& examination);

}  // namespace palaver::cli
