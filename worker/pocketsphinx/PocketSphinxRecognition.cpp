#include "worker/pocketsphinx/PocketSphinxRecognition.h"

#include <utility>

#include "worker/pocketsphinx/PocketSphinxRecognizer.h"
#include "worker/pocketsphinx/RecognitionEngine.h"

namespace palaver {

PocketSphinxRecognition::PocketSphinxRecognition(std::filesystem::path modelRoot)
    : modelRoot_(std::move(modelRoot)), engines_(std::make_shared<RecognitionEngines>()) {}

std::unique_ptr<SpeechRecognizer> PocketSphinxRecognition::makeRecognizer(std::string_view localeIdentifier) {
  const auto directory = modelDirectoryName(localeIdentifier);
  if (!directory) return nullptr;
  return std::make_unique<PocketSphinxRecognizer>(SpeechModelFiles(modelRoot_, *directory), engines_);
}

}  // namespace palaver
