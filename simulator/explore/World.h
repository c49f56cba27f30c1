// Makes worlds: scenarios with a random host, machine and order of events, which check invariants.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

struct WorldChoice {
  std::uint64_t seed = 0;
  std::size_t commands = 150;  // lines of the host at most; a one-shot mode has fewer
};

// Returns a scenario file. Equal choices make equal worlds.
JSON makeWorld(const WorldChoice& choice);

}  // namespace palaver
