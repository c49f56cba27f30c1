// Shares helpers between the fuzzers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace palaver {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Prints `what` and aborts when the two sides differ.
inline void require(bool agreed, const char* what) {
  if (agreed) return;
  std::fprintf(stderr, "fuzzer: %s\n", what);
  std::abort();
}

}  // namespace palaver
