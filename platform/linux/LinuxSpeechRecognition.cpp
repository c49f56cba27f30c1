#include "platform/linux/LinuxSpeechRecognition.h"

#include <string>
#include <system_error>
#include <utility>

#include "platform/linux/SpeechWorker.h"
#include "platform/linux/WorkerRecognizer.h"
#include "platform/linux/models/SpeechModelFiles.h"

namespace palaver {

LinuxSpeechRecognition::LinuxSpeechRecognition(MainQueue& mainQueue, SpeechModels models,
                                               WorkerSettings settings)
    : mainQueue_(mainQueue), models_(std::move(models)), settings_(std::move(settings)) {}

LinuxSpeechRecognition::LinuxSpeechRecognition(MainQueue& mainQueue, std::filesystem::path modelRoot,
                                               WorkerSettings settings)
    : LinuxSpeechRecognition(mainQueue, SpeechModels({{}, {}, std::move(modelRoot)}), std::move(settings)) {}

LinuxSpeechRecognition::~LinuxSpeechRecognition() = default;

std::optional<LinuxSpeechRecognition::ServedModel> LinuxSpeechRecognition::modelFor(
    std::string_view localeIdentifier) const {
  if (const auto model = models_.find(localeIdentifier); model && model->engine == SpeechEngine::sherpa)
    return ServedModel{{std::string(nameOf(model->engine)), model->folder, model->locale},
                       [folder = model->folder] {
                         std::error_code ignored;
                         return std::filesystem::is_directory(folder, ignored);
                       }};
  const auto directory = modelDirectoryName(localeIdentifier);
  if (!directory) return std::nullopt;
  const auto& root = models_.roots().pocketSphinxModels;
  return ServedModel{{std::string(nameOf(SpeechEngine::pocketSphinx)), root / *directory, *directory},
                     [files = SpeechModelFiles(root, *directory)] { return files.areInstalled(); }};
}

std::unique_ptr<SpeechRecognizer> LinuxSpeechRecognition::makeRecognizer(std::string_view localeIdentifier) {
  auto model = modelFor(localeIdentifier);
  if (!model) return nullptr;
  return std::make_unique<WorkerRecognizer>(workerFor(model->name), mainQueue_,
                                            std::move(model->isInstalled));
}

void LinuxSpeechRecognition::prepare(std::string_view localeIdentifier) {
  if (const auto model = modelFor(localeIdentifier); model && model->isInstalled())
    workerFor(model->name)->prepare();
}

std::shared_ptr<SpeechWorker> LinuxSpeechRecognition::workerFor(const WorkerModel& model) {
  auto& worker = workers_[model];
  if (!worker) worker = std::make_shared<SpeechWorker>(model, settings_);
  return worker;
}

}  // namespace palaver
