// Implements speech recognition on Linux, in speech workers. No permission is needed, and a locale is served
// when its model is installed.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/SpeechRecognition.h"
#include "platform/linux/WorkerModel.h"
#include "platform/linux/WorkerSettings.h"
#include "platform/linux/models/SpeechModelFiles.h"
#include "platform/linux/models/SpeechModels.h"

namespace palaver {

class MainQueue;
class SpeechWorker;

// Creates nothing and starts nothing until a recognizer is created. One worker serves all recognizers of a
// model. Recognizers may outlive it. Main thread.
class LinuxSpeechRecognition final : public SpeechRecognition {
 public:
  // Searches models in these places. The queue outlives everything else.
  LinuxSpeechRecognition(MainQueue& mainQueue, SpeechModels models, WorkerSettings settings = {});
  // Searches only PocketSphinx's models, under `modelRoot`, which has one directory per locale.
  explicit LinuxSpeechRecognition(MainQueue& mainQueue, std::filesystem::path modelRoot = systemModelRoot,
                                  WorkerSettings settings = {});
  ~LinuxSpeechRecognition() override;

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  // Supports every well-formed identifier. See modelDirectoryName(). Starts no worker.
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;
  // Dictation is a setting of macOS. Without it a status needs no recognition, and starts no worker.
  bool hasDictationSetting() const override { return false; }
  // Starts the locale's worker, which loads the model.
  void prepare(std::string_view localeIdentifier) override;

 private:
  struct ServedModel {
    WorkerModel name;
    std::function<bool()> isInstalled;  // costs a few calls of stat
  };

  // Returns the model that serves or would serve the locale. None when the identifier is not well-formed.
  std::optional<ServedModel> modelFor(std::string_view localeIdentifier) const;
  std::shared_ptr<SpeechWorker> workerFor(const WorkerModel& model);

  MainQueue& mainQueue_;
  const SpeechModels models_;
  const WorkerSettings settings_;
  std::map<WorkerModel, std::shared_ptr<SpeechWorker>> workers_;
};

}  // namespace palaver
