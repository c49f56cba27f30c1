#include "simulator/scenario/ScenarioDifferences.h"

#include <cstdlib>
#include <set>

namespace palaver {

namespace {

// Deletes a member or an element.
constexpr const char* removal = "$remove";

std::size_t elementNumber(const std::string& text, std::size_t size, const std::string& where) {
  char* end = nullptr;
  const auto number = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || number >= size)
    throw FileError(where, "there is no element \"" + text + "\"");
  return number;
}

JSON changedList(const JSON& list, const JSON& changes, const std::string& where) {
  JSON result = list;
  std::set<std::size_t> taken;
  for (const auto& [key, change] : changes.items()) {
    const auto number = elementNumber(key, list.size(), where);
    if (change == removal) {
      taken.insert(number);
    } else {
      result[number] = changed(list[number], change, where + "[" + key + "]");
    }
  }
  for (auto number = taken.rbegin(); number != taken.rend(); ++number) result.erase(*number);
  return result;
}

}  // namespace

JSON changed(const JSON& value, const JSON& changes, const std::string& where) {
  if (!changes.is_object() || !value.is_structured()) return changes;
  if (value.is_array()) return changedList(value, changes, where);
  JSON result = value;
  for (const auto& [key, change] : changes.items()) {
    const auto below = where + "." + key;
    if (change == removal && result.erase(key) == 0) throw FileError(below, "there is nothing to take away");
    if (change != removal) result[key] = value.contains(key) ? changed(value.at(key), change, below) : change;
  }
  return result;
}

ScenarioDifferences::ScenarioDifferences(const std::filesystem::path& path) : file_(readJSONFile(path)) {
  ObjectReader reader(file_, path.filename().string());
  for (const auto* const key : {"reasons", "scenarios"})
    if (const auto* const value = reader.find(key); !value || !value->is_object())
      throw FileError(reader.where(key), "must be an object");
  reader.finish();
  for (const auto& [scenario, unused] : file_.at("scenarios").items()) of(scenario);
}

std::optional<ScenarioDifferences::Difference> ScenarioDifferences::of(const std::string& scenario) const {
  if (!file_.contains("scenarios") || !file_.at("scenarios").contains(scenario)) return std::nullopt;
  ObjectReader reader(file_.at("scenarios").at(scenario), scenario);
  const auto because = reader.text("because").value_or("");
  const auto* const changes = reader.find("changes");
  reader.finish();
  const auto& reasons = file_.at("reasons");
  if (!reasons.contains(because)) throw FileError(reader.where("because"), "there is no such reason");
  if (!changes || !changes->is_object()) throw FileError(reader.where("changes"), "must be an object");
  return Difference{reasons.at(because).get<std::string>(), *changes};
}

}  // namespace palaver
