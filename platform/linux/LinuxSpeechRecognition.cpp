#include "platform/linux/LinuxSpeechRecognition.h"

#include <utility>

#include "platform/linux/PocketSphinxRecognizer.h"
#include "platform/linux/RecognitionEngine.h"

namespace palaver {

LinuxSpeechRecognition::LinuxSpeechRecognition(std::filesystem::path modelRoot)
    : modelRoot_(std::move(modelRoot)), engines_(std::make_shared<RecognitionEngines>()) {}

std::unique_ptr<SpeechRecognizer> LinuxSpeechRecognition::makeRecognizer(std::string_view localeIdentifier) {
  const auto directory = modelDirectoryName(localeIdentifier);
  if (!directory) return nullptr;
  return std::make_unique<PocketSphinxRecognizer>(SpeechModelFiles(modelRoot_, *directory), engines_);
}

}  // namespace palaver
