#include "cli/doctor.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "cli/ArgumentReader.h"
#include "cli/Diagnosis.h"
#include "cli/examine.h"
#include "cli/findHelper.h"

namespace palaver::cli {

namespace {

using nlohmann::ordered_json;

constexpr const char* usage =
    R"(usage: palaver-stt doctor [options] [FILE...]

Tries the helper out and says why a meeting would have no transcript, and what to do
about it: one verdict, one next step. Opens a short session without sound, and asks
nobody for a permission. FILE is sound that a host recorded: is there any voice in it?

  --locale LOCALE  language of the session (default: en-US on Linux, else ja-JP)
  --json           print everything that was seen, as one JSON object
  --helper PATH    helper to examine (default: the one beside this program)
  --help           print this help

Exit status: 0 all is well, 1 a problem was found, 2 invalid usage.
)";

struct Arguments {
  std::string helper = findHelper();
  std::string locale = PALAVER_DOCTOR_LOCALE;
  std::vector<std::string> files;
  bool json = false;
  bool help = false;
};

Arguments parse(std::span<const std::string> arguments) {
  Arguments parsed;
  for (ArgumentReader reader(arguments); !reader.atEnd();) {
    const auto argument = reader.next();
    if (argument == "--helper") {
      parsed.helper = reader.value();
    } else if (argument == "--locale") {
      parsed.locale = reader.value();
    } else if (argument == "--json") {
      parsed.json = true;
    } else if (argument == "--help" || argument == "-h") {
      parsed.help = true;
    } else if (argument.starts_with("-")) {
      throw UsageError("unknown option " + argument);
    } else {
      parsed.files.push_back(argument);
    }
    reader.expectNoValue();
  }
  return parsed;
}

const char* name(Loudness loudness) {
  switch (loudness) {
    case Loudness::silent:
      return "all zero";
    case Loudness::quiet:
      return "quiet";
    case Loudness::voiced:
      return "voiced";
  }
  return "";
}

std::string shortNumber(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", number);
  return text;
}

// What was seen, in words, as name and value.
std::vector<std::pair<std::string, std::string>> screen(const Examination& seen) {
  const auto status = statusOf(seen);
  const auto from = [&status](const char* key) {
    return status.is_object() ? status.value(key, std::string("not reported")) : std::string("not reported");
  };
  std::string answer = "no answer";
  std::string session = "not tried";
  for (const auto& event : seen.events) {
    const auto type = event.value("type", "");
    if (type == "session.ready") {
      const bool isReady = event.value("available", false);
      session = (isReady ? "ready in " : "not available in ") + event.value("locale", seen.locale);
    }
    if (type == "helper.error") answer = event.value("message", "");
  }
  if (answer == "no answer" && seen.isComplete) answer = "none";
  std::vector<std::pair<std::string, std::string>> lines{{"helper", seen.helper},
                                                         {"speech engine", from("implementation")},
                                                         {"permission", from("authorization")},
                                                         {"model (ja-JP)", from("modelStatus")},
                                                         {"Dictation", from("dictation")},
                                                         {"session", session},
                                                         {"last error", answer}};
  if (seen.signature) {
    const auto& signature = *seen.signature;
    std::string text = signature.isValid ? "valid" : "not valid: " + signature.problem;
    if (!signature.identifier.empty()) text += ", " + signature.identifier;
    text += signature.team.empty() ? ", no team" : ", team " + signature.team;
    if (signature.isHardened) text += ", hardened runtime";
    lines.emplace_back("signature", text);
    std::string rights =
        signature.hasUsageText ? "states its use of speech" : "does not state its use of speech";
    for (const auto& key : signature.entitlements) rights += ", " + key;
    lines.emplace_back("rights", rights);
  }
  for (const auto& sound : seen.sounds)
    lines.emplace_back("sound", sound.path + ": " + name(sound.loudness) + ", loudest 100 ms " +
                                    shortNumber(sound.loudest) + " (voice from 0.008)");
  return lines;
}

ordered_json toJSON(const Examination& seen, const Diagnosis& diagnosis) {
  ordered_json sounds = ordered_json::array();
  for (const auto& sound : seen.sounds)
    sounds.push_back({{"path", sound.path}, {"loudness", name(sound.loudness)}, {"loudest", sound.loudest}});
  ordered_json signature;
  if (seen.signature)
    signature = {
        {"isValid", seen.signature->isValid},          {"problem", seen.signature->problem},
        {"identifier", seen.signature->identifier},    {"team", seen.signature->team},
        {"isHardened", seen.signature->isHardened},    {"entitlements", seen.signature->entitlements},
        {"hasUsageText", seen.signature->hasUsageText}};
  return {{"code", diagnosis.code},
          {"verdict", diagnosis.verdict},
          {"step", diagnosis.step},
          {"helper", seen.helper},
          {"locale", seen.locale},
          {"isFile", seen.isFile},
          {"isExecutable", seen.isExecutable},
          {"startError", seen.startError},
          {"end", seen.end},
          {"isComplete", seen.isComplete},
          {"events", seen.events},
          {"sounds", sounds},
          {"signature", signature}};
}

}  // namespace

int doctor(std::span<const std::string> arguments) {
  const auto parsed = parse(arguments);
  if (parsed.help) return std::fputs(usage, stdout) < 0 ? 1 : 0;
  const auto seen = examine(parsed.helper, parsed.locale, parsed.files);
  const auto diagnosis = diagnose(seen);
  if (parsed.json) {
    const auto text = toJSON(seen, diagnosis).dump(2, ' ', false, ordered_json::error_handler_t::replace);
    std::printf("%s\n", text.c_str());
  } else {
    for (const auto& [what, value] : screen(seen)) std::printf("%-14s %s\n", what.c_str(), value.c_str());
    std::printf("\n%s: %s\nNext step: %s\n", diagnosis.code.c_str(), diagnosis.verdict.c_str(),
                diagnosis.step.c_str());
  }
  return diagnosis.isReady() ? 0 : 1;
}

}  // namespace palaver::cli
