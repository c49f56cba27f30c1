// Reads where a helper on another platform differs from scenarios by design, and why.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// Reads a differences file. Its object "reasons" maps names to texts. Its object "scenarios" maps scenario
// names to entries such as:
//
//   {"because": "REASON",
//    "changes": {"analyzers": {"1": {"cancelledAt": 300}}, "conversation": {"8": "$remove"}}}
//
// `changes` apply to the scenario file. An object changes members of an object, or elements of a list by
// 0-based index. "$remove" deletes the member or element. Any other value replaces it.
class ScenarioDifferences {
 public:
  // Creates an empty set.
  ScenarioDifferences() = default;
  // Reads the file. Throws FileError.
  explicit ScenarioDifferences(const std::filesystem::path& path);

  struct Difference {
    std::string reason;
    JSON changes;
  };
  // Returns the difference of a scenario, or none. `scenario` is its file name without ".json". Throws
  // FileError.
  std::optional<Difference> of(const std::string& scenario) const;

 private:
  JSON file_ = JSON::object();
};

// Returns `value` with `changes` applied. Throws FileError when the member or element to change is missing.
JSON changed(const JSON& value, const JSON& changes, const std::string& where);

}  // namespace palaver
