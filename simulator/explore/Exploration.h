// Runs the helper in many random worlds and reports the first one in which an invariant is broken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

namespace palaver {

struct ExplorationOptions {
  std::uint64_t firstSeed = 1;
  std::uint64_t lastSeed = 1;
  std::size_t commands = 150;    // lines of the host in a world
  std::size_t jobs = 1;          // processes that share the work
  std::filesystem::path folder;  // where the shrunk scenario is written; empty: printed only
};

// Explores each seed. Prints the broken invariant of the lowest failing seed that was tried, the conversation
// around it and the shrunk scenario to standard output, and the extent of the search to standard error. What
// is printed for a seed depends on the seed only. Each world runs in a child process, so a crash or a hang of
// the helper is a finding. Returns the exit status: 1 when something was found.
int explore(const ExplorationOptions& options);

// Reads "--seeds A..B [--commands N] [--jobs N] [--save FOLDER]" and explores. Throws std::invalid_argument.
int explore(std::span<char*> arguments);

}  // namespace palaver
