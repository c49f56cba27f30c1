// Defines the constants of the protocol that several components share.
#pragma once

#include <string_view>

namespace palaver {

// Version of the commands and events.
inline constexpr int protocolVersion = 1;

// Locale of a session, and of an installed model, when the host names none.
inline constexpr std::string_view defaultLocale = "ja-JP";

// Locale that status and health reports describe. Sessions may use others.
inline constexpr std::string_view statusLocale = "ja-JP";

}  // namespace palaver
