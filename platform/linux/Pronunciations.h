// How English words are spoken, for words that a recognizer's dictionary lacks.
#pragma once

#include <string>
#include <string_view>

namespace palaver {

// The pronunciation of a word as phones of the CMU set separated by spaces ("P AE L AH V ER"), from a lexicon
// or, failing that, from letter-to-sound rules. Empty for anything but lower-case ASCII letters and
// apostrophes, and when no rule applies. Any thread; calls are serialised.
std::string pronunciation(std::string_view word);

}  // namespace palaver
