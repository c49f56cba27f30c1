#include "modes/ModelAssets.h"

#include <nlohmann/json.hpp>
#include <string>

#include "analyzer/Await.h"
#include "analyzer/Spawn.h"
#include "core/BackendSelection.h"
#include "core/JSONLineWriter.h"
#include "core/endProcess.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/SpeechAnalysis.h"
#include "platform/Tasks.h"

namespace palaver {

namespace {

// Replaces bytes that are not UTF-8 by U+FFFD. An argument may have any bytes, an event may not.
std::string repairedUTF8(std::string_view text) {
  return Event::parse(Event(text).dump(-1, ' ', false, Event::error_handler_t::replace)).get<std::string>();
}

asio::awaitable<AssetStatus> reportModel(AssetInventory& inventory,
                                         const std::shared_ptr<SpeechTranscriber>& transcriber,
                                         const std::string& locale, JSONLineWriter& writer) {
  const auto status = co_await completionOf<AssetStatus>(
      [&](auto completion) { inventory.status(transcriber, std::move(completion)); });
  writer.write({{"type", "helper.model"}, {"status", wireName(status)}, {"locale", locale}});
  co_return status;
}

// Returns whether the model is installed afterwards. Throws the platform's error.
asio::awaitable<bool> install(Platform& platform, JSONLineWriter& writer, std::string locale) {
  auto& inventory = platform.speechAnalysis.assetInventory();
  const auto transcriber =
      platform.speechAnalysis.makeTranscriber(locale, TranscriberPreset::progressiveTranscription);
  co_await reportModel(inventory, transcriber, locale, writer);

  auto answer = co_await completionOf<AssetInventory::InstallationRequest>(
      [&](auto completion) { inventory.assetInstallationRequest(transcriber, std::move(completion)); });
  if (const auto* const error = std::get_if<PlatformError>(&answer)) throw *error;
  if (const auto request = std::get<std::shared_ptr<AssetInstallationRequest>>(answer)) {
    writer.write({{"type", "helper.model"}, {"status", "downloading"}, {"locale", locale}});
    co_await successOf([&](auto completion) { request->downloadAndInstall(std::move(completion)); });
  }
  co_return co_await reportModel(inventory, transcriber, locale, writer) == AssetStatus::installed;
}

asio::awaitable<void> installAndExit(Platform& platform, JSONLineWriter& writer,
                                     std::string localeIdentifier) {
  const auto locale = co_await completionOf<std::optional<std::string>>([&](auto completion) {
    platform.speechAnalysis.supportedLocale(localeIdentifier, std::move(completion));
  });
  if (!locale) {
    writer.error("SpeechAnalyzer does not support locale " + localeIdentifier);
    endProcess(platform.process, writer, 1);
  }
  bool installed = false;
  try {
    installed = co_await install(platform, writer, *locale);
  } catch (const std::exception& error) {
    writer.error(std::string("SpeechAnalyzer asset installation failed: ") + error.what());
  }
  endProcess(platform.process, writer, installed ? 0 : 1);
}

}  // namespace

void installSpeechAnalyzerAssets(Platform& platform, JSONLineWriter& writer,
                                 std::string_view localeIdentifier) {
  if (!hasSpeechAnalyzer(platform.process)) {
    writer.error("SpeechAnalyzer assets require macOS 26 and the macOS 26 SDK (Xcode/Command Line Tools 26)");
    endProcess(platform.process, writer, 1);
  }
  spawn(platform.tasks.executor(), installAndExit(platform, writer, repairedUTF8(localeIdentifier)));
  platform.mainQueue.run();
}

}  // namespace palaver
