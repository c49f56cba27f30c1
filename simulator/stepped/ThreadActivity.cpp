#include "simulator/stepped/ThreadActivity.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace palaver {

ThreadActivity::ThreadActivity(pid_t process) {
  isAsleep_ = true;
  std::error_code error;
  const std::filesystem::path tasks = "/proc/" + std::to_string(process) + "/task";
  for (const auto& entry : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream status(entry.path() / "status");
    bool isAsleep = false;
    for (std::string key; status >> key;) {
      if (key == "State:") {
        char state = 0;
        status >> state;
        isAsleep = state == 'S';
      } else if (key == "voluntary_ctxt_switches:") {
        status >> sleeps_[static_cast<pid_t>(std::stol(entry.path().filename().string()))];
      }
    }
    isAsleep_ = isAsleep_ && isAsleep;
  }
  isAsleep_ = isAsleep_ && !error && !sleeps_.empty();
}

}  // namespace palaver
