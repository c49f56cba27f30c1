// Comparing events with what was expected of them.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// What the variables of a scenario stand for: each for one value, no two for the same.
using Variables = std::map<std::string, JSON>;

// Compares a value with a pattern: equal keys, equal values, in any depth, with these exceptions for strings
// and objects of the pattern:
//   "$name"                         any value, the same wherever the name occurs, another for another name
//   "$$text"                        the string "$text"
//   {"$startsWith": "text"}         a string that begins so
//   {"$contains": "text"}           a string that contains it
//   {"$matches": "expression"}      a string that matches as a whole, and with "is": "$name" that variable,
//   too
//   {"$near": 12.5, "within": 0.1}  a number near that one
// Returns what differs and where, in words, or none. Binds variables only when nothing differs.
std::optional<std::string> difference(const JSON& pattern, const JSON& actual, Variables& variables);

// Replaces times in a pattern or command: the string "@250" becomes the number `startsAt` + 250, "@now"
// becomes `startsAt` + `now`, and "@@text" the string "@text". Throws FileError.
JSON withTimes(const JSON& value, double startsAt, double now, const std::string& where);

}  // namespace palaver
