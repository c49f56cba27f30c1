// Reads JSON objects strictly: unknown keys and values of the wrong type are errors that name their location.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace palaver {

using JSON = nlohmann::json;

// Reports an error in a file, with its location.
class FileError : public std::runtime_error {
 public:
  FileError(const std::string& where, const std::string& what) : std::runtime_error(where + ": " + what) {}
};

// Reads a JSON file. Comments are allowed, duplicate keys are not. Throws FileError.
JSON readJSONFile(const std::filesystem::path& path);

// Reads one object key by key. finish() rejects keys that have not been read. The object must outlive the
// reader.
class ObjectReader {
 public:
  // `where` names the object in error messages. Throws FileError, as does every other member.
  ObjectReader(const JSON& value, std::string where);

  const std::string& where() const { return where_; }
  std::string where(const std::string& key) const { return where_ + "." + key; }
  [[noreturn]] void fail(const std::string& what) const { throw FileError(where_, what); }

  // Returns the value of a key, or null if it is absent.
  const JSON* find(const std::string& key);

  std::optional<std::string> text(const std::string& key);
  std::optional<double> number(const std::string& key);
  // A number without a fraction, whether written 1 or 1.0.
  std::optional<std::int64_t> wholeNumber(const std::string& key);
  std::optional<bool> boolean(const std::string& key);
  const JSON* array(const std::string& key);

  // Returns none for an absent key, and an inner none for a null value.
  std::optional<std::optional<double>> numberOrNull(const std::string& key);

  void finish() const;

 private:
  const JSON& value_;
  std::string where_;
  std::set<std::string> known_;
};

// Returns the value of the choice with that name. Throws FileError.
template <typename Value, std::size_t count>
Value oneOf(const std::pair<const char*, Value> (&choices)[count], const std::string& name,
            const std::string& where) {
  std::string known;
  for (const auto& [text, value] : choices) {
    if (name == text) return value;
    known += (known.empty() ? "" : ", ") + std::string(text);
  }
  throw FileError(where, "unknown value \"" + name + "\"; known here: " + known);
}

}  // namespace palaver
