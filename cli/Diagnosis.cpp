#include "cli/Diagnosis.h"

#include <algorithm>
#include <utility>

#include "cli/ErrorDefinitions.h"
#include "cli/EventText.h"

namespace palaver::cli {

namespace {

using nlohmann::json;
using System = Examination::System;

bool isOfType(const json& event, const char* type) {
  return textOf(event, "type") == type;
}

bool isSessionReady(const std::vector<json>& events) {
  return std::ranges::any_of(events, [](const json& event) {
    return isOfType(event, "session.ready") && event.contains("available") && event.at("available") == true;
  });
}

// The text of the last error that concerns the session, or an empty one.
std::string lastError(const std::vector<json>& events) {
  const bool isReady = isSessionReady(events);
  for (auto event = events.rbegin(); event != events.rend(); ++event) {
    if (!isOfType(*event, "helper.error")) continue;
    auto message = textOf(*event, "message");
    // The report at the start is about Japanese, the session may be in another language.
    if (isReady && errorCode(message) == "japanese-unsupported") continue;
    return message;
  }
  return "";
}

// What keeps the helper from answering at all.
std::optional<Diagnosis> diagnoseProgram(const Examination& seen) {
  if (!seen.isFile)
    return Diagnosis{"helper-missing", "There is no helper at " + seen.helper + ".",
                     "Install the helper again, or give its path with --helper."};
  if (!seen.isExecutable)
    return Diagnosis{"helper-not-executable", "The helper at " + seen.helper + " may not be run.",
                     "Make it executable: chmod +x '" + seen.helper + "'."};
  if (!seen.startError.empty())
    return Diagnosis{"helper-not-started", "The helper cannot be started: " + seen.startError + ".",
                     "Install the helper that was made for this system and processor."};
  if (seen.signature && !seen.signature->isValid && seen.events.empty())
    return Diagnosis{"signature-invalid",
                     "macOS does not accept the helper: " + seen.signature->problem + ".",
                     "Install the helper again, or sign it: docs/shipping.md."};
  if (!seen.end.empty() && seen.events.empty())
    return Diagnosis{"helper-ended", "The helper ended before it answered: " + seen.end + ".",
                     seen.system == System::macOS
                         ? "Check its signature: codesign --verify --strict '" + seen.helper + "'."
                         : "Install the helper again."};
  if (seen.events.empty())
    return Diagnosis{"helper-silent", "The helper runs, but says nothing.",
                     "End other programs that take all of the processor, then try again."};
  return std::nullopt;
}

Diagnosis diagnosePermission(const std::string& authorization) {
  if (authorization == "not-determined")
    return {"permission-undecided", "Nobody has been asked for the permission of Speech Recognition.",
            "Run `npm run helper:authorize` once, and allow it."};
  if (authorization == "restricted")
    return {"permission-restricted", "An administrator has forbidden Speech Recognition on this Mac.",
            "Ask the administrator to allow Speech Recognition."};
  if (authorization == "denied")
    return {"permission-denied", "Speech Recognition was refused.",
            "Allow it in System Settings > Privacy & Security > Speech Recognition."};
  return {"permission-unknown",
          "The system gives an unknown answer about the permission: " + authorization + ".",
          "Look at System Settings > Privacy & Security > Speech Recognition."};
}

Diagnosis diagnoseError(const Examination& seen, const std::string& message, const json& status) {
  const auto code = errorCode(message);
  if (code == "permission-missing" && textOf(status, "authorization") == "not-determined" && seen.signature &&
      !seen.signature->hasUsageText)
    return {"usage-text-missing",
            "The helper does not state why it recognizes speech, so macOS ends it when it asks.",
            "Build it with its property list: docs/shipping.md."};
  const bool isAnalyzer = textOf(status, "implementation") == "speech-analyzer";
  if (code == "permission-missing") return diagnosePermission(textOf(status, "authorization"));
  if (code == "dictation-disabled")
    return {"dictation-disabled", "Dictation is off.",
            "Turn it on in System Settings > Keyboard > Dictation."};
  if (code == "japanese-unsupported" || code == "locale-unsupported")
    return {"locale-unsupported", "This machine cannot recognize " + seen.locale + ".",
            seen.system == System::linux
                ? "Choose a language that has a model: palaver-stt models list."
                : "Choose another language, or another Mac: no setting changes this."};
  if (code == "model-missing") {
    const std::string verdict = "The model of " + seen.locale + " is not installed.";
    if (seen.system == System::linux)
      return {code, verdict, "Add a model: palaver-stt models add FOLDER --locale " + seen.locale + "."};
    if (isAnalyzer) return {code, verdict, "Go online and run `npm run helper:install-model`."};
    return {code, verdict,
            "Enable Dictation for the language in System Settings > Keyboard, and wait for its download."};
  }
  return {code, message, "Try again; if it happens again, report this text."};
}

std::optional<Diagnosis> diagnoseSounds(const Examination& seen) {
  for (const auto& sound : seen.sounds) {
    if (sound.loudness == Loudness::silent)
      return Diagnosis{"audio-silent", sound.path + " holds only zeros.",
                       "Check the permission of the microphone in the host, and the device that it records."};
    if (sound.loudness == Loudness::quiet)
      return Diagnosis{"audio-quiet",
                       sound.path + " is too quiet: no 100 ms of it reach the threshold of 0.008.",
                       "Turn the level of the input up."};
  }
  return std::nullopt;
}

}  // namespace

json statusOf(const Examination& examination) {
  json status;
  for (const auto& event : examination.events) {
    if (event.contains("sessionId")) break;
    if (isOfType(event, "helper.status")) status = event;
  }
  return status;
}

Diagnosis diagnose(const Examination& seen) {
  if (auto found = diagnoseProgram(seen)) return *found;
  if (const auto error = lastError(seen.events); !error.empty())
    return diagnoseError(seen, error, statusOf(seen));
  if (!seen.isComplete)
    return {"helper-stuck",
            seen.end.empty() ? "The helper stopped answering."
                             : "The helper ended in a session: " + seen.end + ".",
            "Try again; if it happens again, report the output of palaver-stt doctor --json."};
  if (!isSessionReady(seen.events))
    return {"session-unavailable", "The helper does not make a session in " + seen.locale + " ready.",
            "Try again; if it happens again, report the output of palaver-stt doctor --json."};
  if (auto found = diagnoseSounds(seen)) return *found;
  return {"ready", "Everything that a transcript in " + seen.locale + " needs is there.",
          "Nothing is to be done."};
}

}  // namespace palaver::cli
