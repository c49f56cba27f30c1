#include "platform/posix/POSIXProcess.h"

#include <cstdlib>

namespace palaver {

std::optional<std::string> POSIXProcess::environmentVariable(std::string_view name) const {
  const char* const value = std::getenv(std::string(name).c_str());
  if (!value) return std::nullopt;
  return value;
}

// Other threads (the reader, a recognizer) still run, so nothing they use may be destroyed. No stream of the
// C or C++ library is in use that would need flushing.
void POSIXProcess::terminate(int status) {
  std::_Exit(status);
}

}  // namespace palaver
