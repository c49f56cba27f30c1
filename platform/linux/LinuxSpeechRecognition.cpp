#include "platform/linux/LinuxSpeechRecognition.h"

#include <string>
#include <system_error>
#include <utility>

#include "platform/linux/SpeechWorker.h"
#include "platform/linux/WorkerRecognizer.h"

namespace palaver {

namespace {

WorkerModel workerModel(const InstalledModel& model) {
  return {std::string(nameOf(model.engine)), model.folder, model.locale};
}

}  // namespace

LinuxSpeechRecognition::LinuxSpeechRecognition(MainQueue& mainQueue, SpeechModels models,
                                               WorkerSettings settings)
    : mainQueue_(mainQueue), models_(std::move(models)), settings_(std::move(settings)) {}

LinuxSpeechRecognition::LinuxSpeechRecognition(MainQueue& mainQueue, std::filesystem::path modelRoot,
                                               WorkerSettings settings)
    : LinuxSpeechRecognition(mainQueue, SpeechModels({{}, {}, std::move(modelRoot)}), std::move(settings)) {}

LinuxSpeechRecognition::~LinuxSpeechRecognition() = default;

std::unique_ptr<SpeechRecognizer> LinuxSpeechRecognition::makeRecognizer(std::string_view localeIdentifier) {
  if (const auto model = models_.find(localeIdentifier); model && model->engine == SpeechEngine::sherpa)
    return std::make_unique<WorkerRecognizer>(workerFor(workerModel(*model)), mainQueue_,
                                              [folder = model->folder] {
                                                std::error_code ignored;
                                                return std::filesystem::is_directory(folder, ignored);
                                              });
  const auto directory = modelDirectoryName(localeIdentifier);
  if (!directory) return nullptr;
  const auto& root = models_.roots().pocketSphinxModels;
  return std::make_unique<WorkerRecognizer>(
      workerFor({"pocketsphinx", root / *directory, *directory}), mainQueue_,
      [files = SpeechModelFiles(root, *directory)] { return files.areInstalled(); });
}

void LinuxSpeechRecognition::prepare(std::string_view localeIdentifier) {
  if (const auto model = models_.find(localeIdentifier); model && model->engine == SpeechEngine::sherpa) {
    workerFor(workerModel(*model))->prepare();
    return;
  }
  const auto directory = modelDirectoryName(localeIdentifier);
  const auto& root = models_.roots().pocketSphinxModels;
  if (!directory || !SpeechModelFiles(root, *directory).areInstalled()) return;
  workerFor({"pocketsphinx", root / *directory, *directory})->prepare();
}

std::shared_ptr<SpeechWorker> LinuxSpeechRecognition::workerFor(const WorkerModel& model) {
  auto& worker = workers_[model];
  if (!worker) worker = std::make_shared<SpeechWorker>(model, settings_);
  return worker;
}

}  // namespace palaver
