// The command `models` where the system manages its own models.
#include <stdexcept>

#include "cli/models.h"

namespace palaver::cli {

int models(std::span<const std::string> /*arguments*/) {
  throw std::runtime_error(
      "models is for Linux; on a Mac, System Settings > Keyboard > Dictation manages the languages");
}

}  // namespace palaver::cli
