// Implements the "--install-assets" mode: downloads the on-device model of one locale.
#pragma once

#include <string_view>

namespace palaver {

class JSONLineWriter;
struct Platform;

// Ends the process with status 0 when the model is installed afterwards, otherwise 1. Main thread.
[[noreturn]] void installSpeechAnalyzerAssets(Platform& platform, JSONLineWriter& writer,
                                              std::string_view localeIdentifier);

}  // namespace palaver
