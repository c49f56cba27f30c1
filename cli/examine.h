// Tries a helper out in a short session.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "cli/Diagnosis.h"

namespace palaver::cli {

struct ExaminationLimits {
  std::chrono::milliseconds status{20000};  // from the start to a status that is final
  std::chrono::milliseconds session{
      30000};                           // from there to the answer about the session: a model may be loaded
  std::chrono::milliseconds end{5000};  // from the end of the input to the end of the helper
};

// Starts `helper`, opens a session in `locale`, sends 100 ms of quiet and ends the session. Blocks. Ignores
// SIGPIPE from then on. Throws std::runtime_error when a sound file cannot be read.
Examination examine(const std::string& helper, const std::string& locale,
                    const std::vector<std::string>& soundFiles, const ExaminationLimits& limits = {});

}  // namespace palaver::cli
