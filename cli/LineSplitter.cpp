#include "cli/LineSplitter.h"

#include <stdexcept>
#include <utility>

namespace palaver::cli {

void LineSplitter::append(std::string_view bytes, const LineHandler& handler) {
  for (auto end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
    const auto line = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    if (partial_.empty()) {
      handler(line);
    } else {
      const auto whole = std::exchange(partial_, {}).append(line);
      handler(whole);
    }
  }
  if (partial_.size() + bytes.size() > maxLineBytes) {
    partial_.clear();
    throw std::length_error("a line exceeds 16 MiB");
  }
  partial_.append(bytes);
}

void LineSplitter::finish(const LineHandler& handler) {
  if (partial_.empty()) return;
  const auto line = std::exchange(partial_, {});
  handler(line);
}

}  // namespace palaver::cli
