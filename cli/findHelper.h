// Finds the helper that palaver-stt runs unless --helper names another.
#pragma once

#include <string>

namespace palaver::cli {

// Returns the first of these files that exists: PalaverSTTHelper beside this program, the one that a
// development build was built with (PALAVER_HELPER), PalaverSTTHelper in a folder of PATH. Returns the first
// path when none exists. Links are resolved. Any thread.
std::string findHelper();

}  // namespace palaver::cli
