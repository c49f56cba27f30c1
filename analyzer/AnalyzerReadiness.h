// Reports whether the stream-based engine can serve Japanese on this machine.
#pragma once

#include <asio/awaitable.hpp>
#include <optional>
#include <string_view>

#include "core/JSONLineWriter.h"
#include "core/Protocol.h"
#include "platform/SpeechAnalysis.h"

namespace palaver {

struct Platform;

// The engine's name on the wire.
inline constexpr std::string_view analyzerImplementationName = "speech-analyzer";

// Returns the status of the Japanese model, or none when the engine does not support Japanese.
asio::awaitable<std::optional<AssetStatus>> japaneseModel(Platform& platform);

// Creates the "helper.status" event for this model status, without its "message".
Event statusEvent(AssetStatus model);

}  // namespace palaver
