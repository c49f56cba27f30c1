#include "platform/linux/LinuxSpeechRecognition.h"

#include <utility>

#include "platform/linux/SpeechWorker.h"
#include "platform/linux/WorkerRecognizer.h"

namespace palaver {

LinuxSpeechRecognition::LinuxSpeechRecognition(MainQueue& mainQueue, std::filesystem::path modelRoot,
                                               WorkerSettings settings)
    : mainQueue_(mainQueue), modelRoot_(std::move(modelRoot)), settings_(std::move(settings)) {}

LinuxSpeechRecognition::~LinuxSpeechRecognition() = default;

std::unique_ptr<SpeechRecognizer> LinuxSpeechRecognition::makeRecognizer(std::string_view localeIdentifier) {
  const auto directory = modelDirectoryName(localeIdentifier);
  if (!directory) return nullptr;
  return std::make_unique<WorkerRecognizer>(
      workerFor({"pocketsphinx", modelRoot_ / *directory, *directory}), mainQueue_,
      [files = SpeechModelFiles(modelRoot_, *directory)] { return files.areInstalled(); });
}

void LinuxSpeechRecognition::prepare(std::string_view localeIdentifier) {
  const auto directory = modelDirectoryName(localeIdentifier);
  if (!directory || !SpeechModelFiles(modelRoot_, *directory).areInstalled()) return;
  workerFor({"pocketsphinx", modelRoot_ / *directory, *directory})->prepare();
}

std::shared_ptr<SpeechWorker> LinuxSpeechRecognition::workerFor(const WorkerModel& model) {
  auto& worker = workers_[model];
  if (!worker) worker = std::make_shared<SpeechWorker>(model, settings_);
  return worker;
}

}  // namespace palaver
