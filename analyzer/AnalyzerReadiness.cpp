#include "analyzer/AnalyzerReadiness.h"

#include <nlohmann/json.hpp>
#include <string>

#include "analyzer/Await.h"
#include "platform/Platform.h"

namespace palaver {

asio::awaitable<std::optional<AssetStatus>> japaneseModel(Platform& platform) {
  auto& analysis = platform.speechAnalysis;
  const auto locale = co_await completionOf<std::optional<std::string>>(
      [&](auto completion) { analysis.supportedLocale(statusLocale, std::move(completion)); });
  if (!locale) co_return std::nullopt;
  const auto transcriber = analysis.makeTranscriber(*locale, TranscriberPreset::progressiveTranscription);
  co_return co_await completionOf<AssetStatus>(
      [&](auto completion) { analysis.assetInventory().status(transcriber, std::move(completion)); });
}

Event statusEvent(AssetStatus model) {
  const bool installed = model == AssetStatus::installed;
  return {{"type", "helper.status"},
          {"status", installed ? "ready" : "setup-required"},
          {"available", installed},
          {"implementation", analyzerImplementationName},
          {"authorization", "not-required"},
          {"modelStatus", wireName(model)},
          {"protocolVersion", protocolVersion}};
}

}  // namespace palaver
