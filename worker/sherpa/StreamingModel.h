// Transcribes with a model that takes audio as it arrives.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/models/SherpaModel.h"
#include "worker/sherpa/LoadedModel.h"
#include "worker/sherpa/SherpaLibrary.h"

namespace palaver {

// Phrases are hotwords of a transducer whose tokens are known: characters, or word pieces with a "bpe.vocab"
// beside the model.
class StreamingModel final : public LoadedModel {
 public:
  // Loads the model. Throws PlatformError when the library refuses it.
  StreamingModel(std::shared_ptr<const SherpaLibrary> library, const SherpaModel& model);
  ~StreamingModel() override;
  StreamingModel(const StreamingModel&) = delete;
  StreamingModel& operator=(const StreamingModel&) = delete;

  std::unique_ptr<Transcriber> transcribe(const std::vector<std::string>& phrases) override;

 private:
  const std::shared_ptr<const SherpaLibrary> library_;
  const SherpaOnnxOnlineRecognizer* recognizer_ = nullptr;
  bool takesHotwords_ = false;
};

}  // namespace palaver
