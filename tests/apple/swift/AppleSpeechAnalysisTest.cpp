// Tests macOS specifics of the analysis: every deviation reported of the framework, and the translation of
// every answer.
#include "platform/macos/AppleSpeechAnalysis.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <set>

#include "apple-stand-ins/swift/AnalysisBehaviour.h"
#include "platform/macos/SpeechAnalyzerBridge.h"
#include "simulator/ThreadedTimeline.h"
#include "simulator/machine/SimulatedSpeechAnalysis.h"
#include "simulator/scenario/SyntheticAudio.h"
#include "tests/support/AnalysisSession.h"
#include "tests/support/SpeechAnalysisSubjects.h"

namespace palaver {
namespace {

constexpr const char* speechErrorDomain = "SFSpeechErrorDomain";

class AppleSpeechAnalysisTest : public testing::Test {
 protected:
  // Call before the first use of the analysis.
  void start(AnalysisState state = {}, AnalysisQuirks quirks = {}) {
    if (state.utterances.empty()) state.utterances = {tenMeters()};
    simulated.setState(std::move(state));
    behaviour.emplace(simulated, std::move(quirks));
    analysis.emplace();
  }

  // `prepare`: prepares the session and requires success.
  AnalysisSession open(bool prepare = true) {
    auto session = makeSession(*analysis, "ja-JP");
    if (prepare) EXPECT_FALSE(session.prepare());
    return session;
  }

  static void expectError(const std::optional<PlatformError>& error, const char* domain, long code,
                          const char* text) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), domain);
    EXPECT_EQ(error->code(), code);
    EXPECT_EQ(error->localizedDescription(), text);
  }

  const std::vector<std::int16_t> speech = samplesOfLoudness(0.1, 16000);
  ThreadedTimeline timeline{2};
  SimulatedSpeechAnalysis simulated{timeline, {}};
  std::optional<AnalysisBehaviour> behaviour;
  std::optional<AppleSpeechAnalysis> analysis;
};

const AnalysisQuirks silentFinish{.finishingWithoutAudioIsNeverAnswered = true};

TEST_F(AppleSpeechAnalysisTest, UnfedAnalyzerFinishes) {
  start({}, silentFinish);
  const auto session = open();
  EXPECT_FALSE(session.finish());
  EXPECT_TRUE(session.readAll().endWith<EndOfResults>());
  EXPECT_TRUE(behaviour->waitForPreparedAnalyzers(0));
  ASSERT_EQ(simulated.analyses().size(), 1U);
  EXPECT_FALSE(simulated.analyses()[0].finalizedAt);
  EXPECT_TRUE(simulated.analyses()[0].cancelledAt);
}

TEST_F(AppleSpeechAnalysisTest, AnalyzerFedNothingOrTooLateFinishes) {
  start({}, silentFinish);
  const auto session = open();
  session.input->yield(std::make_shared<PCMBuffer>(session.format, 0));
  session.input->yield(std::make_shared<PCMBuffer>(session.format, 100));  // no frames
  session.input->finish();
  session.feed(speech);
  EXPECT_FALSE(session.finish());
  EXPECT_TRUE(session.readAll().endWith<EndOfResults>());
}

TEST_F(AppleSpeechAnalysisTest, FedAnalyzerIsFinalized) {
  start({}, silentFinish);
  const auto session = open();
  session.feed(speech);
  EXPECT_FALSE(session.finish());
  EXPECT_EQ(session.readAll().finalText(), "go forward ten meters");
  EXPECT_TRUE(simulated.analyses()[0].finalizedAt);
  EXPECT_FALSE(simulated.analyses()[0].cancelledAt);
}

TEST_F(AppleSpeechAnalysisTest, AnalyzerOverLimitIsRejectedAndReleased) {
  start({}, {.maxPreparedAnalyzers = 3});
  const std::array sessions{open(), open(), open()};
  const auto tooMany = open(false);
  expectError(tooMany.prepare(), speechErrorDomain, 16, "Too many simultaneous requests");
  EXPECT_TRUE(behaviour->waitForPreparedAnalyzers(3));
  EXPECT_TRUE(sessions[0].cancel());
  const auto next = open();
  next.feed(speech);
  EXPECT_FALSE(next.finish());
  EXPECT_EQ(next.readAll().finalText(), "go forward ten meters");
}

TEST_F(AppleSpeechAnalysisTest, ResultsBeforeFirstReadAreKept) {
  start({}, {.unreadResultsAreLost = true});
  const auto session = open();
  session.feed(speech);
  EXPECT_FALSE(session.finish());
  const auto read = session.readAll();
  EXPECT_EQ(read.results.size(), 4U);
  EXPECT_EQ(read.finalText(), "go forward ten meters");
}

TEST_F(AppleSpeechAnalysisTest, NonFiniteTimesAreForwarded) {
  start();
  const auto session = open();
  constexpr auto infinity = std::numeric_limits<double>::infinity();
  simulated.emit(0, TranscriptionResult{"nowhere", std::nan(""), std::nan(""), false});
  simulated.emit(0, TranscriptionResult{"forever", 1.5, infinity, false});
  simulated.emit(0, TranscriptionResult{"always", -infinity, -infinity, false});
  simulated.emit(0, TranscriptionResult{"late", 1e18, 1e18, true});
  simulated.emit(0, EndOfResults{});
  const auto read = session.readAll();
  ASSERT_EQ(read.results.size(), 4U);
  EXPECT_TRUE(std::isnan(read.results[0].rangeStart));
  EXPECT_TRUE(std::isnan(read.results[0].rangeEnd));
  EXPECT_EQ(read.results[1].rangeStart, 1.5);
  EXPECT_EQ(read.results[1].rangeEnd, infinity);
  EXPECT_EQ(read.results[2].rangeStart, -infinity);
  EXPECT_EQ(read.results[3].rangeStart, infinity);
  EXPECT_TRUE(read.results[3].isFinal);
}

TEST_F(AppleSpeechAnalysisTest, WrongSampleTypeIsRejectedBeforeFramework) {
  start();
  const auto session = open();
  const auto floats = std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::float32, 16000, 1, true}, 160);
  floats->setFrameLength(160);
  EXPECT_THROW(session.input->yield(floats), std::invalid_argument);
  session.feed(speech);
  EXPECT_FALSE(session.finish());
  EXPECT_EQ(session.readAll().finalText(), "go forward ten meters") << "the analyzer stays usable";
}

TEST_F(AppleSpeechAnalysisTest, UnreadableAudioIsRejected) {
  start();
  const auto session = open(false);  // the format is not known yet
  const auto doubles = std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::float64, 16000, 1, true}, 160);
  doubles->setFrameLength(160);
  EXPECT_THROW(session.input->yield(doubles), std::invalid_argument);
  const auto quadraphonic =
      std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::int16, 16000, 4, true}, 160);
  quadraphonic->setFrameLength(160);
  EXPECT_THROW(session.input->yield(quadraphonic), std::runtime_error) << "the system has no such format";
}

TEST_F(AppleSpeechAnalysisTest, ReportedStatusIsForwarded) {
  start({}, {.reportedStatus = AssetStatus::supported});
  const auto transcriber = makeTranscriber(*analysis, "ja-JP");
  EXPECT_EQ(askForStatus(*analysis, transcriber), AssetStatus::supported);
}

using Locales = std::set<std::string>;

const std::map<std::string, std::string, std::less<>> threeLocales{
    {"ja-JP", "ja_JP"}, {"en-US", "en_US"}, {"fr-FR", "fr_FR"}};

TEST_F(AppleSpeechAnalysisTest, SupportedLocaleIsReserved) {
  start();
  const auto transcriber = makeTranscriber(*analysis, "ja-JP");
  EXPECT_EQ(behaviour->reservedLocales(), Locales{"ja_JP"});
  EXPECT_EQ(askForStatus(*analysis, transcriber), AssetStatus::installed);
  EXPECT_FALSE(open(false).prepare());
}

TEST_F(AppleSpeechAnalysisTest, UnsupportedLocaleIsNotReserved) {
  start();
  EXPECT_EQ(askForLocale(*analysis, "fr-FR"), std::nullopt);
  EXPECT_TRUE(behaviour->reservedLocales().empty());
}

TEST_F(AppleSpeechAnalysisTest, ReservedLocaleIsInstalled) {
  AnalysisState state;
  state.model = AssetStatus::supported;
  start(state);
  const auto answer = askForInstallation(*analysis, makeTranscriber(*analysis, "ja-JP"));
  ASSERT_TRUE(answer);
  EXPECT_TRUE(std::holds_alternative<std::shared_ptr<AssetInstallationRequest>>(*answer));
}

TEST_F(AppleSpeechAnalysisTest, FailedReservationIsNotAnError) {
  start({}, {.reservationError = PlatformError(speechErrorDomain, 15, "cannot be reserved")});
  const auto transcriber = makeTranscriber(*analysis, "ja-JP");
  EXPECT_EQ(askForStatus(*analysis, transcriber), AssetStatus::supported);
  expectError(open(false).prepare(), speechErrorDomain, 10, "The module uses a locale that is not allocated");
  const auto answer = askForInstallation(*analysis, transcriber);
  ASSERT_TRUE(answer && std::holds_alternative<PlatformError>(*answer));
  expectError(std::get<PlatformError>(*answer), speechErrorDomain, 1,
              "The program is not subscribed to transcription.ja_JP");
}

TEST_F(AppleSpeechAnalysisTest, UnreservedRequestMayBeNull) {
  start({}, {.reservationError = PlatformError(speechErrorDomain, 15, "cannot be reserved"),
             .unreservedRequestIsNull = true});
  const auto answer = askForInstallation(*analysis, makeTranscriber(*analysis, "ja-JP"));
  ASSERT_TRUE(answer && std::holds_alternative<std::shared_ptr<AssetInstallationRequest>>(*answer));
  EXPECT_FALSE(std::get<std::shared_ptr<AssetInstallationRequest>>(*answer));
}

TEST_F(AppleSpeechAnalysisTest, EarlierReservationIsReleasedAtLimit) {
  start({}, {.maxReservedLocales = 2, .reservedLocales = {"de_DE", "it_IT"}});
  open();
  const auto reserved = behaviour->reservedLocales();
  EXPECT_EQ(reserved.size(), 2U);
  EXPECT_TRUE(reserved.contains("ja_JP"));
}

TEST_F(AppleSpeechAnalysisTest, ReservationInUseIsKeptAtLimit) {
  AnalysisState state;
  state.locales = threeLocales;
  start(state, {.maxReservedLocales = 2});
  const auto japanese = makeTranscriber(*analysis, "ja-JP");
  makeTranscriber(*analysis, "en-US");  // destroyed
  const auto french = makeTranscriber(*analysis, "fr-FR");
  EXPECT_EQ(behaviour->reservedLocales(), (Locales{"fr_FR", "ja_JP"}));
  EXPECT_EQ(askForStatus(*analysis, japanese), AssetStatus::installed);
  EXPECT_EQ(askForStatus(*analysis, french), AssetStatus::installed);
}

TEST_F(AppleSpeechAnalysisTest, LimitOfLocalesInUseIsReported) {
  AnalysisState state;
  state.locales = threeLocales;
  start(state, {.maxReservedLocales = 1});
  const auto japanese = makeTranscriber(*analysis, "ja-JP");
  const auto english = makeTranscriber(*analysis, "en-US");
  EXPECT_EQ(behaviour->reservedLocales(), Locales{"ja_JP"});
  EXPECT_EQ(askForStatus(*analysis, english), AssetStatus::supported);
}

TEST_F(AppleSpeechAnalysisTest, EarliestUnusedReservationIsReleasedFirst) {
  AnalysisState state;
  state.locales = threeLocales;
  start(state, {.maxReservedLocales = 2});
  for (const auto* const locale : {"ja-JP", "en-US", "fr-FR"}) makeTranscriber(*analysis, locale);
  EXPECT_EQ(behaviour->reservedLocales(), (Locales{"en_US", "fr_FR"}));
}

TEST_F(AppleSpeechAnalysisTest, AvailabilityFollowsTranscriber) {
  AnalysisState state;
  start(state);
  EXPECT_TRUE(analysis->isTranscriberAvailable());
  state.isAvailable = false;
  simulated.setState(state);
  EXPECT_FALSE(analysis->isTranscriberAvailable());
}

TEST_F(AppleSpeechAnalysisTest, SupportedLocaleIsSystemIdentifier) {
  AnalysisState state;
  state.locales = {{"ja-JP", "ja_JP"}, {"zh-Hant-TW", "zh_TW"}};
  start(state);
  EXPECT_EQ(askForLocale(*analysis, "ja-JP"), "ja_JP");
  EXPECT_EQ(askForLocale(*analysis, "zh-Hant-TW"), "zh_TW");
  EXPECT_EQ(askForLocale(*analysis, "fr-FR"), std::nullopt);
  EXPECT_EQ(askForLocale(*analysis, std::string_view("ja-JP\0", 6)), std::nullopt) << "it goes as a whole";
  EXPECT_EQ(askForLocale(*analysis, "\xff\xfe"), std::nullopt) << "no UTF-8";
}

TEST_F(AppleSpeechAnalysisTest, TextIsUnchanged) {
  start();
  const std::vector<std::string> phrases{"会議", "", "naïve café", std::string("a\0b", 3), "👩‍💻"};
  auto session = makeSession(*analysis, "ja-JP", phrases);
  EXPECT_EQ(simulated.analyses()[0].contextualStrings, phrases);
  EXPECT_EQ(simulated.analyses()[0].locale, "ja_JP");
  for (const auto& phrase : phrases) simulated.emit(0, TranscriptionResult{phrase, 0, 1, false});
  simulated.emit(0, EndOfResults{});
  std::vector<std::string> texts;
  const auto read = session.readAll();
  for (const auto& result : read.results) texts.push_back(result.text);
  EXPECT_EQ(texts, phrases);
}

TEST_F(AppleSpeechAnalysisTest, EveryStatusIsTranslated) {
  AnalysisState state;
  start(state);
  const auto transcriber = makeTranscriber(*analysis, "ja-JP");
  for (const auto status :
       {AssetStatus::unsupported, AssetStatus::supported, AssetStatus::downloading, AssetStatus::installed}) {
    state.model = status;
    simulated.setState(state);
    EXPECT_EQ(askForStatus(*analysis, transcriber), status);
  }
}

TEST_F(AppleSpeechAnalysisTest, MissingFormatIsNone) {
  AnalysisState state;
  state.format = std::nullopt;
  start(state);
  EXPECT_EQ(askForFormat(*analysis, makeTranscriber(*analysis, "ja-JP")), std::nullopt);
}

TEST_F(AppleSpeechAnalysisTest, AudioArrivesInAnalyzerFormat) {
  for (const AudioFormat format :
       {AudioFormat{CommonFormat::int16, 16000, 1, true}, AudioFormat{CommonFormat::int16, 48000, 1, false},
        AudioFormat{CommonFormat::int16, 24000, 2, true},
        AudioFormat{CommonFormat::int16, 22050, 2, false}}) {
    AnalysisState state;
    state.format = format;
    analysis.reset();
    behaviour.reset();
    start(state);
    const auto session = open();
    EXPECT_EQ(session.format, format);
    EXPECT_EQ(session.format.interleaved, format.interleaved);
    // For mono audio, interleaved and non-interleaved are equal.
    auto mine = format;
    if (format.channelCount == 1) mine.interleaved = !format.interleaved;
    const auto buffer = std::make_shared<PCMBuffer>(mine, 300);
    std::fill_n(buffer->int16ChannelData(), 300, std::int16_t{7});
    buffer->setFrameLength(200);
    session.input->yield(buffer);
    EXPECT_FALSE(session.finish());
    const RecordedAnalysis record = simulated.analyses().back();
    ASSERT_EQ(record.buffers.size(), 1U);
    EXPECT_EQ(record.buffers[0].format.interleaved, format.interleaved);
    EXPECT_EQ(record.buffers[0].format, format);
    EXPECT_EQ(record.buffers[0].frames, 200U);
    EXPECT_EQ(record.buffers[0].firstSample, 7);
    EXPECT_EQ(record.preparedFor, format);
  }
}

TEST_F(AppleSpeechAnalysisTest, ChunksArriveInOrder) {
  start();
  const auto session = open();
  std::vector<std::int16_t> expected;
  for (std::int16_t i = 0; i < 500; ++i) {
    session.feed(std::vector<std::int16_t>(160, i));
    expected.push_back(i);
  }
  EXPECT_FALSE(session.finish());
  std::vector<std::int16_t> arrived;
  const auto analyses = simulated.analyses();
  for (const auto& buffer : analyses[0].buffers) arrived.push_back(buffer.firstSample);
  EXPECT_EQ(arrived, expected);
}

TEST_F(AppleSpeechAnalysisTest, ErrorsKeepDomainCodeAndText) {
  AnalysisState state;
  state.prepare.error = PlatformError(speechErrorDomain, 3, "音声形式に対応していません");
  state.finalize.error = PlatformError("NSOSStatusErrorDomain", -50, "wrong parameter");
  state.installationRequest.error = PlatformError(speechErrorDomain, 15, "cannot be reserved");
  start(state);
  const auto session = open(false);
  expectError(session.prepare(), speechErrorDomain, 3, "音声形式に対応していません");
  session.feed(speech);
  expectError(session.finish(), "NSOSStatusErrorDomain", -50, "wrong parameter");
  const auto request = askForInstallation(*analysis, session.transcriber);
  ASSERT_TRUE(request && std::holds_alternative<PlatformError>(*request));
  expectError(std::get<PlatformError>(*request), speechErrorDomain, 15, "cannot be reserved");
}

TEST_F(AppleSpeechAnalysisTest, FailedResultsReportError) {
  start();
  const auto session = open();
  simulated.emit(0, TranscriptionResult{"so far", 0, 1, false});
  simulated.emit(0, PlatformError(speechErrorDomain, 2, "overlapping audio"));
  const auto read = session.readAll();
  EXPECT_EQ(read.results.size(), 1U);
  ASSERT_TRUE(read.endWith<PlatformError>());
  expectError(std::get<PlatformError>(*read.end), speechErrorDomain, 2, "overlapping audio");
}

TEST_F(AppleSpeechAnalysisTest, CancelledResultStreamIsNotAnError) {
  start();
  const auto session = open();
  simulated.emit(0, ResultsCancelled{});
  EXPECT_TRUE(session.readAll().endWith<ResultsCancelled>());
}

TEST_F(AppleSpeechAnalysisTest, OperationCancelledBySystemIsAnError) {
  AnalysisState state;
  state.prepare.error = PlatformError("CancellationError", 1, "");
  start(state);
  const auto error = open(false).prepare();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Swift.CancellationError");
  EXPECT_FALSE(error->localizedDescription().empty());
}

TEST_F(AppleSpeechAnalysisTest, MissingModelIsDownloaded) {
  AnalysisState state;
  state.model = AssetStatus::supported;
  state.download.takes = 5;
  start(state);
  const auto transcriber = makeTranscriber(*analysis, "ja-JP");
  const auto answer = askForInstallation(*analysis, transcriber);
  ASSERT_TRUE(answer && std::holds_alternative<std::shared_ptr<AssetInstallationRequest>>(*answer));
  const auto request = std::get<std::shared_ptr<AssetInstallationRequest>>(*answer);
  ASSERT_TRUE(request);
  Awaited<std::optional<PlatformError>> downloaded;
  request->downloadAndInstall(downloaded.completion());
  const auto error = downloaded.wait();
  ASSERT_TRUE(error);
  EXPECT_FALSE(*error);
  EXPECT_EQ(askForStatus(*analysis, transcriber), AssetStatus::installed);
}

TEST_F(AppleSpeechAnalysisTest, FailedDownloadReportsError) {
  AnalysisState state;
  state.model = AssetStatus::supported;
  state.download.error =
      PlatformError("NSURLErrorDomain", -1009, "The Internet connection appears to be offline.");
  start(state);
  const auto answer = askForInstallation(*analysis, makeTranscriber(*analysis, "ja-JP"));
  ASSERT_TRUE(answer && std::holds_alternative<std::shared_ptr<AssetInstallationRequest>>(*answer));
  Awaited<std::optional<PlatformError>> downloaded;
  std::get<std::shared_ptr<AssetInstallationRequest>>(*answer)->downloadAndInstall(downloaded.completion());
  const auto error = downloaded.wait();
  ASSERT_TRUE(error);
  expectError(*error, "NSURLErrorDomain", -1009, "The Internet connection appears to be offline.");
}

TEST_F(AppleSpeechAnalysisTest, FrameworkObjectsAreReleased) {
  AnalysisState state;
  state.model = AssetStatus::supported;
  start(state);
  for (int i = 0; i < 3; ++i) {
    const auto session = open();
    session.feed(speech);
    EXPECT_TRUE(askForInstallation(*analysis, session.transcriber));
    if (i == 0) EXPECT_FALSE(session.finish());
    if (i == 1) EXPECT_TRUE(session.cancel());
    if (i == 0) EXPECT_FALSE(session.readAll().results.empty());
  }
  EXPECT_TRUE(behaviour->waitForObjects(0));
}

TEST_F(AppleSpeechAnalysisTest, LateAnswersAreIgnored) {
  AnalysisState state;
  start(state);
  auto session = open();
  session.feed(speech);
  state.model = AssetStatus::supported;
  for (auto* const operation : {&state.localeLookup, &state.modelLookup, &state.formatLookup, &state.prepare,
                                &state.finalize, &state.cancel, &state.installationRequest})
    operation->takes = std::nullopt;
  simulated.setState(state);

  Awaited<std::optional<std::string>> locale;
  analysis->supportedLocale("ja-JP", locale.completion());
  Awaited<std::optional<AudioFormat>> format;
  analysis->bestAvailableAudioFormat(session.transcriber, format.completion());
  Awaited<AssetStatus> status;
  analysis->status(session.transcriber, status.completion());
  Awaited<AssetInventory::InstallationRequest> installation;
  analysis->assetInstallationRequest(session.transcriber, installation.completion());
  Awaited<std::optional<PlatformError>> prepared;
  session.analyzer->prepareToAnalyze(session.format, prepared.completion());
  session.input->finish();
  Awaited<std::optional<PlatformError>> finished;
  session.analyzer->finalizeAndFinishThroughEndOfInput(finished.completion());
  Awaited<bool> cancelled;
  session.analyzer->cancelAndFinishNow([completion = cancelled.completion()] { completion(true); });
  for (std::size_t read = 0; read < tenMeters().partials.size(); ++read) EXPECT_TRUE(session.next());
  Awaited<NextResult> result;
  session.transcriber->nextResult(result.completion());

  analysis.reset();
  EXPECT_TRUE(locale.waitUntilLetGo() && format.waitUntilLetGo() && status.waitUntilLetGo() &&
              installation.waitUntilLetGo() && prepared.waitUntilLetGo() && finished.waitUntilLetGo() &&
              cancelled.waitUntilLetGo() && result.waitUntilLetGo());
  EXPECT_FALSE(locale.hasAnswer() || format.hasAnswer() || status.hasAnswer() || installation.hasAnswer() ||
               prepared.hasAnswer() || finished.hasAnswer() || cancelled.hasAnswer() || result.hasAnswer());
  session = {};
  // Abandons pending questions repeatedly, because tasks may still be starting one.
  int attempts = 0;
  do simulated.abandon();
  while (!behaviour->waitForObjects(0, std::chrono::milliseconds(10)) && ++attempts < 6000);
  EXPECT_LT(attempts, 6000) << "its tasks have not ended";
}

using AppleSpeechAnalysisDeathTest = AppleSpeechAnalysisTest;

TEST_F(AppleSpeechAnalysisDeathTest, FrameworkEndsProcessForFloatSamples) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Swift starts a program that describes the crash. It may hang, and then holds the output that the test
  // waits for, also after the test was ended by a time-out.
  ASSERT_EQ(::setenv("SWIFT_BACKTRACE", "enable=no", 1), 0);
  EXPECT_DEATH(
      {
        start();
        auto session = open(false);  // unprepared, so that the adapter does not reject the floats
        const auto floats =
            std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::float32, 16000, 1, true}, 160);
        floats->setFrameLength(160);
        session.input->yield(floats);
        session.finish();
      },
      "Audio sample data must be 16-bit signed integers");
}

}  // namespace
}  // namespace palaver
