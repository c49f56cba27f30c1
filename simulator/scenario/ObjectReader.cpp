#include "simulator/scenario/ObjectReader.h"

#include <cmath>
#include <fstream>
#include <utility>
#include <vector>

namespace palaver {

JSON readJSONFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  if (!file) throw FileError(path.string(), "cannot be opened");
  std::vector<std::set<std::string>> keys;  // keys seen so far, per open object
  std::string repeated;
  const auto watch = [&](int, JSON::parse_event_t event, JSON& value) {
    if (event == JSON::parse_event_t::object_start) keys.emplace_back();
    if (event == JSON::parse_event_t::object_end) keys.pop_back();
    if (event == JSON::parse_event_t::key && !keys.back().insert(value.get<std::string>()).second)
      repeated = value.get<std::string>();
    return true;
  };
  JSON value;
  try {
    value = JSON::parse(file, watch, true, true);
  } catch (const JSON::exception& error) {
    throw FileError(path.string(), error.what());
  }
  if (!repeated.empty()) throw FileError(path.string(), "the key \"" + repeated + "\" is repeated");
  return value;
}

ObjectReader::ObjectReader(const JSON& value, std::string where) : value_(value), where_(std::move(where)) {
  if (!value.is_object()) fail("must be an object");
}

const JSON* ObjectReader::find(const std::string& key) {
  known_.insert(key);
  const auto found = value_.find(key);
  return found == value_.end() ? nullptr : &*found;
}

std::optional<std::string> ObjectReader::text(const std::string& key) {
  const auto* const value = find(key);
  if (!value) return std::nullopt;
  if (!value->is_string()) throw FileError(where(key), "must be a string");
  return value->get<std::string>();
}

std::optional<double> ObjectReader::number(const std::string& key) {
  const auto* const value = find(key);
  if (!value) return std::nullopt;
  if (!value->is_number()) throw FileError(where(key), "must be a number");
  return value->get<double>();
}

std::optional<std::int64_t> ObjectReader::wholeNumber(const std::string& key) {
  const auto value = number(key);
  if (!value) return std::nullopt;
  constexpr double limit = 9007199254740992;  // 2^53: beyond it a double skips whole numbers
  if (*value != std::trunc(*value) || std::abs(*value) > limit)
    throw FileError(where(key), "must be a whole number");
  return static_cast<std::int64_t>(*value);
}

std::optional<bool> ObjectReader::boolean(const std::string& key) {
  const auto* const value = find(key);
  if (!value) return std::nullopt;
  if (!value->is_boolean()) throw FileError(where(key), "must be true or false");
  return value->get<bool>();
}

const JSON* ObjectReader::array(const std::string& key) {
  const auto* const value = find(key);
  if (value && !value->is_array()) throw FileError(where(key), "must be an array");
  return value;
}

std::optional<std::optional<double>> ObjectReader::numberOrNull(const std::string& key) {
  const auto* const value = find(key);
  if (!value) return std::nullopt;
  if (value->is_null()) return std::optional<double>();
  return number(key);
}

void ObjectReader::finish() const {
  for (const auto& [key, value] : value_.items())
    if (!known_.contains(key)) {
      std::string known;
      for (const auto& name : known_) known += (known.empty() ? "" : ", ") + name;
      fail("unknown key \"" + key + "\"; known here: " + known);
    }
}

}  // namespace palaver
