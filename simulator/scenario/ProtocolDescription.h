// Checks events against the description of the protocol in protocol/, which the build embeds.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// An event as it was written: keys keep their order.
using WrittenEvent = nlohmann::ordered_json;

// Immutable apart from a cache. One thread.
class ProtocolDescription {
 public:
  static ProtocolDescription& shared();

  // Returns how an event differs from the schema of its type, or none.
  std::optional<std::string> mismatch(const WrittenEvent& event) const;

  // Describes one error text of errors.json.
  struct ErrorText {
    std::string code;
    std::string names;  // whether the event names session and source: "yes", "no" or a condition
    std::vector<std::string> backends;
    bool isGeneral = false;  // the text of another entry takes precedence
    std::regex pattern;
  };
  // Returns the entries of an error text: one, unless the texts are ambiguous or incomplete.
  const std::vector<const ErrorText*>& errorsOf(const std::string& message);

  // Returns the text of a rule of rules.json, or none.
  std::optional<std::string> rule(std::string_view id) const;
  std::vector<std::string> ruleIds() const;

 private:
  ProtocolDescription();
  std::optional<std::string> mismatch(const JSON& schema, const WrittenEvent& value,
                                      const std::string& where) const;
  std::optional<std::string> memberMismatch(const JSON& schema, const WrittenEvent& object,
                                            const std::string& where) const;

  JSON schema_;
  std::map<std::string, const JSON*, std::less<>> events_;  // schema by type
  std::vector<ErrorText> errors_;
  std::map<std::string, std::vector<const ErrorText*>> errorsOfMessages_;
  std::map<std::string, std::string, std::less<>> rules_;
};

}  // namespace palaver
