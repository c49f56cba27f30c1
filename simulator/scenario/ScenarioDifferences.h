// Where a helper on another platform is meant to do otherwise than scenarios say, and why.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// A file of them: an object of "reasons", texts by name, and of "scenarios", by name:
//
//   {"because": "REASON", "changes": {"analyzers": {"1": {"cancelledAt": 300}}, "conversation": {"8":
//   "$remove"}}}
//
// `changes` are those to the scenario's file. An object changes members of an object, or elements of a list
// by their number from 0; "$remove" takes one away; anything else replaces.
class ScenarioDifferences {
 public:
  // None.
  ScenarioDifferences() = default;
  // Throws FileError.
  explicit ScenarioDifferences(const std::filesystem::path& path);

  struct Difference {
    std::string reason;
    JSON changes;
  };
  // That of a scenario, by the name of its file without ".json"; or none. Throws FileError.
  std::optional<Difference> of(const std::string& scenario) const;

 private:
  JSON file_ = JSON::object();
};

// A value with these changes. Throws FileError when there is nothing of the kind to be changed.
JSON changed(const JSON& value, const JSON& changes, const std::string& where);

}  // namespace palaver
