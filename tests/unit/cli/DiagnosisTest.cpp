// Diagnoses the helper in every state of the simulated machine.
#include "cli/Diagnosis.h"

#include <gtest/gtest.h>

#include <set>

#include "app/Helper.h"
#include "cli/ErrorDefinitions.h"
#include "cli/HostCommands.h"
#include "simulator/machine/SimulatedPlatform.h"

namespace palaver::cli {
namespace {

using nlohmann::json;

// What the doctor sees of a helper on that machine.
Examination examinationOf(SimulatedSettings settings, const std::string& locale = "ja-JP") {
  Examination seen;
  seen.helper = "/helper";
  seen.locale = locale;
  seen.isFile = seen.isExecutable = true;
  SimulatedPlatform machine(std::move(settings));
  const auto send = [&](double time, const std::string& line) {
    machine.scheduler.schedule(time, Timeline::Context::background, &machine,
                               [&machine, line] { machine.standardInput.arrive(line); });
  };
  send(5000, sessionStart("doctor", locale, {}));
  send(6000, audio("doctor", AudioSource::remote, 0, 0, std::vector<std::int16_t>(1600)));
  machine.run(runHelper, 1e6);
  for (const auto& line : machine.standardOutput.lines()) seen.events.push_back(json::parse(line.text));
  seen.isComplete = true;
  return seen;
}

void expectOneStep(const Diagnosis& diagnosis) {
  for (const auto& text : {diagnosis.code, diagnosis.verdict, diagnosis.step}) {
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
  }
  EXPECT_TRUE(diagnosis.step.ends_with('.')) << diagnosis.step;
}

TEST(DiagnosisTest, SignatureMattersWhereItExplainsAFailure) {
  Examination seen;
  seen.isFile = seen.isExecutable = true;
  seen.end = "signal 9";
  seen.signature.emplace().problem = "a sealed resource is missing";
  EXPECT_EQ(diagnose(seen).code, "signature-invalid");
  expectOneStep(diagnose(seen));
  seen.signature->isValid = true;
  EXPECT_EQ(diagnose(seen).code, "helper-ended");

  SimulatedSettings settings;
  settings.recognition.authorization = AuthorizationStatus::notDetermined;
  seen = examinationOf(settings);
  EXPECT_EQ(diagnose(seen).code, "permission-undecided");
  seen.signature.emplace().isValid = true;
  EXPECT_EQ(diagnose(seen).code, "usage-text-missing");
  expectOneStep(diagnose(seen));
  seen.signature->hasUsageText = true;
  EXPECT_EQ(diagnose(seen).code, "permission-undecided");
}

TEST(DiagnosisTest, EachStateBeforeMacOS26HasOneStep) {
  const std::pair<AuthorizationStatus, const char*> permissions[]{
      {AuthorizationStatus::notDetermined, "permission-undecided"},
      {AuthorizationStatus::denied, "permission-denied"},
      {AuthorizationStatus::restricted, "permission-restricted"},
      {static_cast<AuthorizationStatus>(9), "permission-unknown"},
      {AuthorizationStatus::authorized, nullptr}};
  for (const auto& [permission, code] : permissions)
    for (const std::string model : {"none", "missing", "installed"})
      for (const std::string dictation : {"on", "off", "no answer"}) {
        SCOPED_TRACE(model + ", " + dictation);
        SimulatedSettings settings;
        settings.recognition.authorization = permission;
        settings.recognition.locales.clear();
        if (model != "none") settings.recognition.locales["ja-JP"] = model == "installed";
        settings.recognition.dictationIsOn = dictation != "off";
        if (dictation == "no answer") settings.recognition.probeAnswersAfter.reset();
        const auto diagnosis = diagnose(examinationOf(settings));
        expectOneStep(diagnosis);
        const std::string expected = code                 ? code
                                     : model == "none"    ? "locale-unsupported"
                                     : model == "missing" ? "model-missing"
                                     : dictation == "off" ? "dictation-disabled"
                                                          : "ready";
        EXPECT_EQ(diagnosis.code, expected);
      }
}

TEST(DiagnosisTest, EachStateOfMacOS26HasOneStep) {
  for (const bool isAvailable : {true, false})
    for (const bool isSupported : {true, false})
      for (const auto model : {AssetStatus::unsupported, AssetStatus::supported, AssetStatus::downloading,
                               AssetStatus::installed}) {
        SCOPED_TRACE(std::string(isAvailable ? "" : "not available, ") +
                     (isSupported ? "" : "not supported, ") + std::string(wireName(model)));
        SimulatedSettings settings;
        settings.macOS = OperatingSystemVersion{26, 0, 0};
        settings.analysis.isAvailable = isAvailable;
        if (!isSupported) settings.analysis.locales.clear();
        settings.analysis.model = model;
        const auto diagnosis = diagnose(examinationOf(settings));
        expectOneStep(diagnosis);
        EXPECT_EQ(diagnosis.code, !isSupported                      ? "locale-unsupported"
                                  : model == AssetStatus::installed ? "ready"
                                                                    : "model-missing");
      }
}

TEST(DiagnosisTest, MissingJapaneseDoesNotMatterForAnotherLanguage) {
  SimulatedSettings settings;
  settings.macOS = OperatingSystemVersion{26, 0, 0};
  settings.analysis.locales = {{"en-US", "en_US"}};
  EXPECT_EQ(diagnose(examinationOf(settings, "en-US")).code, "ready");
  EXPECT_EQ(diagnose(examinationOf(settings, "ja-JP")).code, "locale-unsupported");
}

TEST(DiagnosisTest, StepForMissingModelDependsOnTheSystem) {
  SimulatedSettings settings;
  settings.macOS = std::nullopt;
  settings.recognition.locales["ja-JP"] = false;
  auto seen = examinationOf(settings);
  EXPECT_NE(diagnose(seen).step.find("System Settings"), std::string::npos);
  seen.system = Examination::System::linux;
  EXPECT_NE(diagnose(seen).step.find("palaver-stt models add"), std::string::npos);
}

TEST(DiagnosisTest, HelperThatDoesNotRunIsTheFirstThingToMend) {
  Examination seen;
  seen.helper = "/helper";
  EXPECT_EQ(diagnose(seen).code, "helper-missing");
  seen.isFile = true;
  EXPECT_EQ(diagnose(seen).code, "helper-not-executable");
  seen.isExecutable = true;
  EXPECT_EQ(diagnose(seen).code, "helper-silent");
  seen.end = "signal 9 (Killed)";
  EXPECT_EQ(diagnose(seen).code, "helper-ended");
  seen.startError = "Exec format error";
  EXPECT_EQ(diagnose(seen).code, "helper-not-started");
}

TEST(DiagnosisTest, HelperThatEndsInTheSessionIsReported) {
  auto seen = examinationOf({});
  seen.isComplete = false;
  seen.end = "signal 11 (Segmentation fault)";
  EXPECT_EQ(diagnose(seen).code, "helper-stuck");
  EXPECT_NE(diagnose(seen).verdict.find("signal 11"), std::string::npos);
}

TEST(DiagnosisTest, SoundOfTheHostIsJudgedLast) {
  auto seen = examinationOf({});
  seen.sounds = {{"a.wav", Loudness::voiced, 0.1}};
  EXPECT_EQ(diagnose(seen).code, "ready");
  seen.sounds.push_back({"b.wav", Loudness::quiet, 0.001});
  EXPECT_EQ(diagnose(seen).code, "audio-quiet");
  seen.sounds[1].loudness = Loudness::silent;
  EXPECT_EQ(diagnose(seen).code, "audio-silent");
  seen.events.clear();
  EXPECT_EQ(diagnose(seen).code, "helper-silent");
}

TEST(ErrorDefinitionsTest, TextsHaveTheirCode) {
  EXPECT_EQ(errorCode("Unsupported recognition locale: xx-XX"), "locale-unsupported");
  EXPECT_EQ(errorCode("Speech recognition failed: anything\nat all"), "recognition-failed");
  EXPECT_EQ(errorCode("SpeechAnalyzer input failed: SpeechAnalyzer model is not installed; run npm run "
                      "helper:install-model"),
            "model-missing");
  EXPECT_EQ(errorCode("SpeechAnalyzer input failed: something else"), "analyzer-failed");
  EXPECT_EQ(errorCode("Speech recognition failed: " + std::string(100000, 'x')), "recognition-failed");
  EXPECT_EQ(errorCode("no text of the helper"), "unknown");
}

}  // namespace
}  // namespace palaver::cli
