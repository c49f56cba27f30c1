// Names a channel: one source of one session.
#pragma once

#include <compare>
#include <string>
#include <string_view>

#include "core/AudioSource.h"

namespace palaver {

struct ChannelKeyView {
  std::string_view sessionId;
  AudioSource source;
  auto operator<=>(const ChannelKeyView&) const = default;
};

struct ChannelKey {
  std::string sessionId;
  AudioSource source;
  operator ChannelKeyView() const { return {sessionId, source}; }
};

// Orders keys, and allows lookups by view without creating a key.
struct ChannelKeyOrder {
  using is_transparent = void;
  bool operator()(const ChannelKeyView& a, const ChannelKeyView& b) const { return a < b; }
};

}  // namespace palaver
