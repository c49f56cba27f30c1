// Reads any bytes as a vocabulary file. What is accepted can be sent to the helper, which reads the same
// phrases.
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "cli/TranscribeArguments.h"
#include "fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace palaver;
  std::istringstream file{std::string(text(data, size))};
  const auto phrases = cli::parseVocabulary(file);
  if (!phrases) return 0;
  std::istringstream sent(nlohmann::json(*phrases).dump());
  require(cli::parseVocabulary(sent) == phrases, "the phrases change on the way");
  return 0;
}
