// Draws the random choices of a world. The same on every platform, unlike the distributions of the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <vector>

namespace palaver {

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  // Returns a whole number from 0 to `count` - 1.
  std::size_t below(std::size_t count) { return static_cast<std::size_t>(engine_() % count); }
  int from(int first, int last) {
    return first + static_cast<int>(below(static_cast<std::size_t>(last - first) + 1));
  }

  // Returns true with this probability.
  bool chance(double probability) { return static_cast<double>(engine_() >> 11) * 0x1p-53 < probability; }

  template <typename Value>
  Value oneOf(std::initializer_list<Value> values) {
    return *(values.begin() + below(values.size()));
  }
  template <typename Value>
  const Value& oneOf(const std::vector<Value>& values) {
    return values[below(values.size())];
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace palaver
