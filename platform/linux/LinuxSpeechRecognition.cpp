#include "platform/linux/LinuxSpeechRecognition.h"

namespace palaver {

std::unique_ptr<SpeechRecognizer> LinuxSpeechRecognition::makeRecognizer(
    std::string_view /*localeIdentifier*/) {
  return nullptr;
}

}  // namespace palaver
