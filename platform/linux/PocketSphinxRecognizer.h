// A recognizer on PocketSphinx, for one locale and one channel's audio.
#pragma once

#include <memory>

#include "platform/SpeechRecognition.h"
#include "platform/linux/SpeechModelFiles.h"

namespace palaver {

class RecognitionEngines;

// Results and errors (domain "PocketSphinx", codes: RecognizerErrorCode) come on an engine thread. Text is in
// lower case and without punctuation. The tasks of one recognizer are worked off one after another, in the
// order of their start: it is one speaker's audio. A request that is destroyed ends its audio.
class PocketSphinxRecognizer final : public SpeechRecognizer {
 public:
  // Cheap: nothing is loaded, and no thread started, before the first task.
  PocketSphinxRecognizer(SpeechModelFiles files, std::shared_ptr<RecognitionEngines> engines);

  bool supportsOnDeviceRecognition() const override;
  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override;
  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override;

 private:
  class Channel;
  class Request;
  class Task;

  const std::shared_ptr<Channel> channel_;
};

}  // namespace palaver
