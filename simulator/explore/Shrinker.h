// Makes a failing world small.
#pragma once

#include <cstddef>
#include <functional>

#include "simulator/scenario/ObjectReader.h"

namespace palaver {

// Returns a smaller scenario file for which `fails` still holds, after at most `tries` calls of it. `fails`
// holds for `world`.
JSON shrunk(JSON world, const std::function<bool(const JSON&)>& fails, std::size_t tries = 3000);

}  // namespace palaver
