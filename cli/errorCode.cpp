#include <algorithm>
#include <regex>

#include "cli/ErrorDefinitions.h"

namespace palaver::cli {

std::string errorCode(std::string_view message) {
  // std::regex recurses for each character, so a long text would need a large stack.
  constexpr std::size_t longestMatched = 2000;
  const std::string text(message.substr(0, std::min(message.size(), longestMatched)));
  for (const auto& [code, pattern] : errorDefinitions())
    if (std::regex_match(text, std::regex(pattern))) return code;
  return "unknown";
}

}  // namespace palaver::cli
