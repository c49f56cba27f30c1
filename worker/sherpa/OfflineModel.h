// Transcribes with a model that takes whole utterances, by decoding a growing window.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "platform/linux/models/SherpaModel.h"
#include "worker/sherpa/GrowingWindow.h"
#include "worker/sherpa/LoadedModel.h"
#include "worker/sherpa/SherpaLibrary.h"

namespace palaver {

// The recognizer is used by one thread only: Whisper's writes to its own configuration while it decodes.
class OfflineModel final : public LoadedModel {
 public:
  // Loads the model. Throws PlatformError when the library refuses it.
  OfflineModel(std::shared_ptr<const SherpaLibrary> library, const SherpaModel& model,
               std::string_view locale);
  ~OfflineModel() override;
  OfflineModel(const OfflineModel&) = delete;
  OfflineModel& operator=(const OfflineModel&) = delete;

  std::unique_ptr<Transcriber> transcribe(const std::vector<std::string>& phrases) override;

  // Decodes audio of at most GrowingWindow::longestLength and returns its words, with positions from its
  // first sample. Without samples there are no words: the library crashes when it has none to decode. Decodes
  // once more when the model repeats itself without end. The cost is left 0.
  GrowingWindow::Answer decode(std::span<const std::int16_t> samples) const;

 private:
  GrowingWindow::Answer decodeOnce(std::span<const std::int16_t> samples, std::size_t silence) const;

  const std::shared_ptr<const SherpaLibrary> library_;
  const SherpaOnnxOfflineRecognizer* recognizer_ = nullptr;
};

}  // namespace palaver
