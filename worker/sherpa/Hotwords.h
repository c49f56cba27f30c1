// Turns a session's vocabulary into hotwords of the library.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/models/SherpaModel.h"

namespace palaver {

// Added to the log probability of each token of a hotword. 1.5 is the library's usual value; less than 2
// leaves clear speech as it is.
inline constexpr float hotwordScore = 1.5F;

// Returns how the library divides hotwords into the model's tokens: "cjkchar", "bpe", "cjkchar+bpe", or ""
// when it cannot. The text is static.
std::string_view hotwordUnit(const SherpaModel& model);

// Joins phrases with "/", as the library takes them. Removes the characters with which it marks scores,
// thresholds and names (: # @ /) and control characters; a score that is not a number would throw an
// exception through the C interface. Leaves out empty phrases. Letters from A to Z get the case of the
// model's tokens, because the library skips a phrase that they cannot spell.
std::string hotwordsOf(const std::vector<std::string>& phrases, LetterCase letterCase = LetterCase::both);

}  // namespace palaver
