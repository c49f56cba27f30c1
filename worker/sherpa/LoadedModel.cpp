#include "worker/sherpa/LoadedModel.h"

namespace palaver {

std::vector<std::exception_ptr> LoadedModel::work(std::span<Transcriber* const> batch) {
  std::vector<std::exception_ptr> failures(batch.size());
  for (std::size_t i = 0; i < batch.size(); ++i) {
    try {
      batch[i]->work();
    } catch (...) {
      failures[i] = std::current_exception();
    }
  }
  return failures;
}

}  // namespace palaver
