// A target of the replay program that rejects every input with an exclamation mark.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (std::find(data, data + size, '!') == data + size) return 0;
  std::fputs("an exclamation mark\n", stderr);
  std::abort();
}
