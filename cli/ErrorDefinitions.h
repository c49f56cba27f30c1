// Maps the texts of error events to stable codes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace palaver::cli {

struct ErrorDefinition {
  const char* code;
  const char* pattern;  // ECMAScript, of the whole text
};

// The first definition whose pattern matches a text is that of the error.
const std::vector<ErrorDefinition>& errorDefinitions();

// Returns the code of a text, or "unknown". Compiles the patterns: not for hot paths.
std::string errorCode(std::string_view message);

}  // namespace palaver::cli
