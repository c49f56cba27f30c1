#include "core/Base64.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace palaver {

std::optional<std::size_t> decodeBase64(std::string_view text, std::uint8_t* bytes,
                                        const VectorKernels& kernels) {
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return 0;
  const std::size_t groups = text.size() / 4;
  const bool isPadded = text.back() == '=';
  if (!kernels.decodeBase64Groups(text.data(), isPadded ? groups - 1 : groups, bytes)) return std::nullopt;
  if (!isPadded) return groups * 3;

  // The last group ends in one or two padding characters, which count as zero bits.
  std::array<char, 4> last;
  std::memcpy(last.data(), text.data() + text.size() - 4, 4);
  const std::size_t padding = last[2] == '=' ? 2 : 1;
  std::fill(last.end() - padding, last.end(), 'A');
  std::array<std::uint8_t, 3> decoded;
  if (!plainKernels.decodeBase64Groups(last.data(), 1, decoded.data())) return std::nullopt;
  std::memcpy(bytes + (groups - 1) * 3, decoded.data(), 3 - padding);
  return groups * 3 - padding;
}

}  // namespace palaver
