// Holds what a host asks for when it starts a session.
#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace palaver {

// Recommended limit of the system's speech recognition for contextual phrases.
inline constexpr std::size_t maxVocabulary = 100;

struct SessionConfiguration {
  // Drops the phrases beyond the limit.
  SessionConfiguration(std::string_view requestedLocale, std::span<const std::string_view> phrases)
      : locale(requestedLocale) {
    const auto used = phrases.first(std::min(phrases.size(), maxVocabulary));
    vocabulary.assign(used.begin(), used.end());
  }

  std::string locale;
  std::vector<std::string> vocabulary;  // at most maxVocabulary phrases
};

}  // namespace palaver
