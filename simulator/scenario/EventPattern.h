// Matches events against patterns with variables and operators.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// Maps variables to values. The mapping is one-to-one.
using Variables = std::map<std::string, JSON>;

// Compares a value with a pattern. Keys and values must be equal at every depth. A number that the pattern
// has without a fraction (1) must be written so in the value too; another one (1.0) matches 1 as well. The
// exceptions are these strings and objects of the pattern:
//
//   "$name"                         any value; equal names match equal values, different names different ones
//   "$$text"                        the string "$text"
//   {"$startsWith": "text"}         a string with this prefix
//   {"$contains": "text"}           a string that contains the text
//   {"$matches": "expression"}      a string that matches as a whole; "is": "$name" also binds that variable
//   {"$near": 12.5, "within": 0.1}  a number within that distance
//
// Returns a description of the first difference and its place, or none. Binds variables only on a match.
std::optional<std::string> difference(const JSON& pattern, const JSON& actual, Variables& variables);

// Replaces the time strings in a pattern or command. "@250" becomes the number `startsAt` + 250, "@now"
// becomes `startsAt` + `now`, and "@@text" becomes the string "@text". Throws FileError.
JSON withTimes(const JSON& value, double startsAt, double now, const std::string& where);

}  // namespace palaver
