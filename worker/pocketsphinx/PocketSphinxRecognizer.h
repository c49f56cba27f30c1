// Recognizes one locale in the audio of one channel, with PocketSphinx.
#pragma once

#include <memory>

#include "platform/SpeechRecognition.h"
#include "platform/linux/models/SpeechModelFiles.h"

namespace palaver {

class RecognitionEngines;

// Results and errors (domain "PocketSphinx", codes: RecognizerErrorCode) arrive on an engine thread. Text is
// in lower case and without punctuation. The tasks of one recognizer run one after the other in the order of
// their start, because they are one speaker's audio. Destroying a request ends its audio.
class PocketSphinxRecognizer final : public SpeechRecognizer {
 public:
  // Cheap: the first task loads the model and starts the thread.
  PocketSphinxRecognizer(SpeechModelFiles files, std::shared_ptr<RecognitionEngines> engines);

  bool supportsOnDeviceRecognition() const override;
  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override;
  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override;

 private:
  class Channel;

  const std::shared_ptr<Channel> channel_;
};

}  // namespace palaver
