// Reads members of the helper's events, which are checked nowhere else.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace palaver::cli {

// Returns the text of a member, or an empty one when the event has no such member or it is no string.
inline std::string textOf(const nlohmann::json& event, const char* key) {
  const auto member = event.find(key);
  return member != event.end() && member->is_string() ? member->get<std::string>() : std::string();
}

// Returns the number of a member, or none when the event has no such member or it is no number.
inline std::optional<double> numberOf(const nlohmann::json& event, const char* key) {
  const auto member = event.find(key);
  if (member == event.end() || !member->is_number()) return std::nullopt;
  return member->get<double>();
}

}  // namespace palaver::cli
