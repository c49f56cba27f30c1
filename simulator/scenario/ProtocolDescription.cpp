#include "simulator/scenario/ProtocolDescription.h"

#include <algorithm>
#include <set>
#include <stdexcept>

namespace palaver {

extern const char* const schemaOfProtocol;
extern const char* const errorsOfProtocol;
extern const char* const rulesOfProtocol;

namespace {

// The keywords of JSON Schema that say nothing about validity, besides those that begin with "x-".
const std::set<std::string, std::less<>> annotations{"title", "description", "examples", "default",
                                                     "contentEncoding"};

const JSON& definition(const JSON& schema, const std::string& reference) {
  return schema.at(JSON::json_pointer(reference.substr(1)));  // "#/$defs/Name"
}

bool hasType(const WrittenEvent& value, const std::string& type) {
  if (type == "object") return value.is_object();
  if (type == "array") return value.is_array();
  if (type == "string") return value.is_string();
  if (type == "boolean") return value.is_boolean();
  if (type == "integer") return value.is_number_integer();
  if (type == "number") return value.is_number();
  throw std::logic_error("unknown type in the schema: " + type);
}

}  // namespace

ProtocolDescription& ProtocolDescription::shared() {
  static ProtocolDescription description;
  return description;
}

ProtocolDescription::ProtocolDescription() : schema_(JSON::parse(schemaOfProtocol)) {
  for (const auto& alternative : schema_.at("$defs").at("Event").at("oneOf")) {
    const auto& event = definition(schema_, alternative.at("$ref"));
    events_[event.at("properties").at("type").at("const")] = &event;
  }
  const auto errors = JSON::parse(errorsOfProtocol);
  for (const auto& error : errors.at("errors"))
    errors_.push_back({error.at("code"), error.at("names"), error.at("backends"),
                       error.value("general", false), std::regex(error.at("pattern").get<std::string>())});
  const auto rules = JSON::parse(rulesOfProtocol);
  for (const auto& rule : rules.at("rules")) rules_[rule.at("id")] = rule.at("rule");
}

std::optional<std::string> ProtocolDescription::mismatch(const WrittenEvent& event) const {
  const auto type = event.find("type");
  if (type == event.end() || !type->is_string()) return "it has no type";
  const auto found = events_.find(type->get<std::string>());
  if (found == events_.end()) return "no event has the type " + type->dump();
  return mismatch(*found->second, event, type->get<std::string>());
}

// Covers the keywords that the schema uses. Throws std::logic_error for any other one.
std::optional<std::string> ProtocolDescription::mismatch(const JSON& schema, const WrittenEvent& value,
                                                         const std::string& where) const {
  if (schema.is_boolean())
    return schema.get<bool>() ? std::nullopt : std::optional(where + " is not allowed");
  for (const auto& [keyword, operand] : schema.items()) {
    if (keyword == "$ref") {
      if (auto why = mismatch(definition(schema_, operand), value, where)) return why;
    } else if (keyword == "type") {
      if (!hasType(value, operand)) return where + " is not of type " + operand.get<std::string>();
    } else if (keyword == "const") {
      if (JSON(value) != operand) return where + " is not " + operand.dump();
    } else if (keyword == "enum") {
      if (std::find(operand.begin(), operand.end(), JSON(value)) == operand.end())
        return where + " is none of " + operand.dump();
    } else if (keyword == "minLength") {
      if (value.is_string() && value.get_ref<const std::string&>().empty()) return where + " is empty";
    } else if (keyword == "minimum") {
      if (value.is_number() && value.get<double>() < operand.get<double>()) return where + " is too small";
    } else if (keyword == "maximum") {
      if (value.is_number() && value.get<double>() > operand.get<double>()) return where + " is too large";
    } else if (keyword == "oneOf") {
      const auto matching = std::count_if(operand.begin(), operand.end(), [&](const JSON& alternative) {
        return !mismatch(alternative, value, where);
      });
      if (matching != 1) return where + " matches " + std::to_string(matching) + " alternatives";
    } else if (keyword == "properties" || keyword == "required" || keyword == "additionalProperties") {
      continue;  // below
    } else if (!annotations.contains(keyword) && !keyword.starts_with("x-")) {
      throw std::logic_error("unknown keyword in the schema: " + keyword);
    }
  }
  return memberMismatch(schema, value, where);
}

std::optional<std::string> ProtocolDescription::memberMismatch(const JSON& schema, const WrittenEvent& object,
                                                               const std::string& where) const {
  if (!object.is_object()) return std::nullopt;
  if (const auto required = schema.find("required"); required != schema.end())
    for (const auto& key : *required)
      if (!object.contains(key.get<std::string>())) return where + " lacks " + key.get<std::string>();
  const auto properties = schema.find("properties");
  const bool isClosed = !schema.value("additionalProperties", true);
  for (const auto& [key, member] : object.items()) {
    const bool isKnown = properties != schema.end() && properties->contains(key);
    if (!isKnown && isClosed) return where + " has the undocumented key " + key;
    if (!isKnown) continue;
    if (auto why = mismatch(properties->at(key), member, where + "." + key)) return why;
  }
  return std::nullopt;
}

const std::vector<const ProtocolDescription::ErrorText*>& ProtocolDescription::errorsOf(
    const std::string& message) {
  if (errorsOfMessages_.size() > 10000) errorsOfMessages_.clear();
  const auto [known, isNew] = errorsOfMessages_.try_emplace(message);
  auto& matching = known->second;
  if (!isNew) return matching;
  for (const auto& error : errors_)
    if (std::regex_match(message, error.pattern)) matching.push_back(&error);
  const auto isGeneral = [](const ErrorText* error) { return error->isGeneral; };
  if (!std::ranges::all_of(matching, isGeneral)) std::erase_if(matching, isGeneral);
  return matching;
}

std::optional<std::string> ProtocolDescription::rule(std::string_view id) const {
  const auto found = rules_.find(id);
  if (found == rules_.end()) return std::nullopt;
  return found->second;
}

std::vector<std::string> ProtocolDescription::ruleIds() const {
  std::vector<std::string> ids;
  for (const auto& [id, text] : rules_) ids.push_back(id);
  return ids;
}

}  // namespace palaver
