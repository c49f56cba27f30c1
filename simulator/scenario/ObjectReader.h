// Strict reading of JSON objects: every key must be known, every value of the right type, and a complaint
// says where.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace palaver {

using JSON = nlohmann::json;

// What is wrong with a file, and where in it.
class FileError : public std::runtime_error {
 public:
  FileError(const std::string& where, const std::string& what) : std::runtime_error(where + ": " + what) {}
};

// Reads a JSON file in which comments are allowed and repeated keys are not. Throws FileError.
JSON readJSONFile(const std::filesystem::path& path);

// Reads one object key by key; finish() refuses what was not asked for. The object must outlive the reader.
class ObjectReader {
 public:
  // `where` names the object in complaints. Throws FileError, as does every function here.
  ObjectReader(const JSON& value, std::string where);

  const std::string& where() const { return where_; }
  std::string where(const std::string& key) const { return where_ + "." + key; }
  [[noreturn]] void fail(const std::string& what) const { throw FileError(where_, what); }

  // The value of a key, or null when there is none.
  const JSON* find(const std::string& key);

  std::optional<std::string> text(const std::string& key);
  std::optional<double> number(const std::string& key);
  std::optional<bool> boolean(const std::string& key);
  const JSON* array(const std::string& key);

  // A number, or null for none; the outer level tells whether the key is there.
  std::optional<std::optional<double>> numberOrNull(const std::string& key);

  void finish() const;

 private:
  const JSON& value_;
  std::string where_;
  std::set<std::string> known_;
};

// The value that a name stands for. Throws FileError.
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
