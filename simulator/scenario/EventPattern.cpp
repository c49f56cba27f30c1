#include "simulator/scenario/EventPattern.h"

#include <cmath>
#include <cstdlib>
#include <regex>

namespace palaver {

namespace {

using Difference = std::optional<std::string>;

std::string in(const std::string& path) {
  return path.empty() ? "the event" : path;
}

Difference unlike(const JSON& pattern, const JSON& actual, const std::string& path) {
  return in(path) + " is " + actual.dump() + " instead of " + pattern.dump();
}

Difference compareVariable(const std::string& name, const JSON& actual, const std::string& path,
                           Variables& variables) {
  for (const auto& [other, value] : variables) {
    if (other == name && value != actual)
      return in(path) + " is " + actual.dump() + ", but " + name + " was " + value.dump();
    if (other != name && value == actual)
      return in(path) + " is " + actual.dump() + " as " + other + " was, but " + name +
             " must differ from it";
  }
  variables.emplace(name, actual);
  return std::nullopt;
}

Difference compare(const JSON& pattern, const JSON& actual, const std::string& path, Variables& variables);

Difference compareObjects(const JSON& pattern, const JSON& actual, const std::string& path,
                          Variables& variables) {
  const auto below = [&path](const std::string& key) { return path.empty() ? key : path + "." + key; };
  for (const auto& [key, value] : actual.items())
    if (!pattern.contains(key)) return below(key) + " is there (" + value.dump() + "), but was not expected";
  for (const auto& [key, value] : pattern.items()) {
    if (!actual.contains(key)) return below(key) + " is missing";
    if (auto found = compare(value, actual.at(key), below(key), variables)) return found;
  }
  return std::nullopt;
}

// Evaluates an operator object such as {"$contains": "text"}. Returns none if the pattern is not an operator.
std::optional<bool> compareByOperator(const JSON& pattern, const JSON& actual) {
  const auto text = [&](const char* key) { return pattern.at(key).get<std::string>(); };
  const auto actualText = actual.is_string() ? actual.get<std::string>() : std::string();
  if (pattern.contains("$startsWith"))
    return actual.is_string() && actualText.starts_with(text("$startsWith"));
  if (pattern.contains("$contains"))
    return actual.is_string() && actualText.find(text("$contains")) != std::string::npos;
  if (pattern.contains("$matches"))
    return actual.is_string() && std::regex_match(actualText, std::regex(text("$matches")));
  if (pattern.contains("$near"))
    return actual.is_number() && std::abs(actual.get<double>() - pattern.at("$near").get<double>()) <=
                                     pattern.at("within").get<double>();
  return std::nullopt;
}

Difference compare(const JSON& pattern, const JSON& actual, const std::string& path, Variables& variables) {
  if (pattern.is_string()) {
    const auto text = pattern.get<std::string>();
    if (text.starts_with("$$"))
      return actual == text.substr(1) ? std::nullopt : unlike(pattern, actual, path);
    if (text.starts_with("$")) return compareVariable(text, actual, path, variables);
  }
  if (pattern.is_object()) {
    if (const auto matches = compareByOperator(pattern, actual)) {
      if (!*matches) return unlike(pattern, actual, path);
      if (!pattern.contains("is")) return std::nullopt;
      return compareVariable(pattern.at("is").get<std::string>(), actual, path, variables);
    }
    if (actual.is_object()) return compareObjects(pattern, actual, path, variables);
  }
  if (pattern.is_array() && actual.is_array() && pattern.size() == actual.size()) {
    for (std::size_t i = 0; i < pattern.size(); ++i)
      if (auto found = compare(pattern[i], actual[i], path + "[" + std::to_string(i) + "]", variables))
        return found;
    return std::nullopt;
  }
  if (pattern.is_number_integer() && actual.is_number_float())
    return in(path) + " is " + actual.dump() + ", which is not written as a whole number";
  return pattern == actual ? std::nullopt : unlike(pattern, actual, path);
}

}  // namespace

std::optional<std::string> difference(const JSON& pattern, const JSON& actual, Variables& variables) {
  Variables bound = variables;
  auto found = compare(pattern, actual, "", bound);
  if (!found) variables = std::move(bound);
  return found;
}

JSON withTimes(const JSON& value, double startsAt, double now, const std::string& where) {
  if (value.is_string()) {
    const auto text = value.get<std::string>();
    if (!text.starts_with("@")) return value;
    if (text.starts_with("@@")) return text.substr(1);
    if (text == "@now") return startsAt + now;
    char* end = nullptr;
    const double time = std::strtod(text.c_str() + 1, &end);
    if (text.size() == 1 || *end != '\0') throw FileError(where, "\"" + text + "\" is no time");
    return startsAt + time;
  }
  if (!value.is_structured()) return value;
  JSON result = value;
  for (auto& member : result) member = withTimes(member, startsAt, now, where);
  return result;
}

}  // namespace palaver
