// The simulated helper in real time, in the place of the real one.
#pragma once

#include <filesystem>
#include <span>

namespace palaver {

// Runs the helper on the process's own streams and clock, with the recognition that the file describes and
// the given arguments for the helper. Ends the process. Throws FileError before anything has happened when
// the file is no good.
[[noreturn]] void runLive(const std::filesystem::path& stateFile, std::span<char*> arguments);

// Runs the helper on the process's own streams and clock, with the analyzer backend of macOS 26 on top of the
// recognizer of Linux. English serves where Japanese is asked for. Ends the process, with status 2 where the
// simulator was built without that recognizer.
[[noreturn]] void runLiveAnalyzer(std::span<char*> arguments);

}  // namespace palaver
