// Runs the simulated helper in real time, in place of the real one.
#pragma once

#include <filesystem>
#include <span>

namespace palaver {

// Runs the helper on the process's own streams and clock with the recognition described by `stateFile`.
// `arguments` are the helper's. Ends the process. Throws FileError for an invalid file, before any side
// effect.
[[noreturn]] void runLive(const std::filesystem::path& stateFile, std::span<char*> arguments);

// Runs the helper on the process's own streams and clock with the analyzer backend of macOS 26 on top of the
// Linux recognizer. English serves requests for Japanese. Ends the process, with status 2 if the simulator
// was built without that recognizer.
[[noreturn]] void runLiveAnalyzer(std::span<char*> arguments);

// Runs the helper of Linux with its speech worker on the process's own streams. The wall clock is the one in
// `clockFile`, see SharedClock; timers run in real time. Ends the process, with status 2 if the simulator was
// built for another system. Throws FileError for an invalid clock, before any side effect.
[[noreturn]] void runLiveLinux(const std::filesystem::path& clockFile, const std::filesystem::path& worker,
                               std::span<char*> arguments);

}  // namespace palaver
