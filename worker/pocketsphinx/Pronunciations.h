// Looks up how English words are pronounced, for words that a recognizer's dictionary lacks.
#pragma once

#include <string>
#include <string_view>

namespace palaver {

// Returns the pronunciation of a word as phones of the CMU set separated by spaces ("P AE L AH V ER"), from a
// lexicon or else from letter-to-sound rules. Returns an empty text for anything but lower-case ASCII letters
// and apostrophes, and when no rule applies. Any thread. Calls are serialized.
std::string pronunciation(std::string_view word);

}  // namespace palaver
