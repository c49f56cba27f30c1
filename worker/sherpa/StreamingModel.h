// Transcribes with a model that takes audio as it arrives.
#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <span>
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

  // 1 when the library or the model cannot decode streams together.
  std::size_t batchSize() const override { return batchSize_; }
  // Decodes the streams in one call of the library. When that fails, decodes each alone, and from then on.
  std::vector<std::exception_ptr> work(std::span<Transcriber* const> batch) override;

 private:
  bool canDecodeTogether();

  const std::shared_ptr<const SherpaLibrary> library_;
  const SherpaOnnxOnlineRecognizer* recognizer_ = nullptr;
  bool takesHotwords_ = false;
  const LetterCase letterCase_;  // of hotwords
  const std::string language_;   // of the prompt, or empty
  double timeFactor_ = 1;        // of the library's times of tokens
  std::size_t batchSize_ = 1;
};

}  // namespace palaver
