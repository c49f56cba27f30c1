#include "simulator/machine/SimulatedSpeechRecognition.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace palaver {

namespace {

constexpr double millisecondsPerFrame = 1000.0 / 16000;

double loudness(const PCMBuffer& buffer) {
  const auto* const samples = buffer.int16ChannelData();
  if (!samples || buffer.frameLength() == 0) return 0;
  double sum = 0;
  for (std::uint32_t i = 0; i < buffer.frameLength(); ++i) sum += std::pow(samples[i] / 32768.0, 2);
  return std::sqrt(sum / buffer.frameLength());
}

RecordedRequest::Buffer record(const PCMBuffer& buffer) {
  const auto* const samples = buffer.int16ChannelData();
  return {buffer.frameLength(), samples && buffer.frameLength() > 0 ? samples[0] : std::int16_t{0},
          loudness(buffer)};
}

}  // namespace

PlatformError noSpeechError() {
  return {"kAFAssistantErrorDomain", 1110, "No speech detected"};
}

PlatformError dictationDisabledError() {
  return {"kLSRErrorDomain", 201, "Siri and Dictation are disabled"};
}

PlatformError cancelledError() {
  return {"kLSRErrorDomain", 301, "Recognition request was canceled"};
}

// Represents one request and its task. Guarded by the service's lock.
class SimulatedSpeechRecognition::Recognition {
 public:
  RecordedRequest record;
  ResultHandler handler;
  bool hasEnded = false;
  std::optional<SimulatedUtterance> utterance;
  std::size_t nextPartial = 0;
  double sound = 0;  // received audio that is not silent, ms
  RecognitionResult newest;

  bool isRunning() const { return handler && !hasEnded; }
};

class SimulatedSpeechRecognition::Service : public std::enable_shared_from_this<Service> {
 public:
  using Pointer = std::shared_ptr<Recognition>;

  Service(Timeline& timeline, RecognitionState state) : timeline_(timeline), state_(std::move(state)) {}

  template <typename Operation>
  auto locked(Operation operation) {
    const std::lock_guard guard(lock_);
    return operation();
  }
  RecognitionState& state() { return state_; }
  Timeline& timeline() { return timeline_; }
  Timeline::Context callbackContext() const {
    return state_.callbacksOnMainThread ? Timeline::Context::mainThreadCallback
                                        : Timeline::Context::background;
  }

  // The functions below require the lock, except recorded(), which takes it.

  Pointer makeRecognition(std::string locale, RecognitionOptions options) {
    auto recognition = std::make_shared<Recognition>();
    recognition->record.locale = std::move(locale);
    recognition->record.options = std::move(options);
    recognition->record.madeAt = timeline_.now();
    all_.push_back(recognition);
    return recognition;
  }

  void start(const Pointer& recognition, ResultHandler handler) {
    recognition->handler = std::move(handler);
    recognition->record.hasTask = true;
    if (!state_.utterances.empty())
      recognition->utterance = state_.utterances[tasks_.size() % state_.utterances.size()];
    if (recognition->record.isProbe()) {
      probes_.push_back(recognition);
    } else {
      tasks_.push_back(recognition);
      if (!state_.dictationIsOn)
        answerLater(recognition, 0, [] { return errorAnswer(dictationDisabledError()); });
    }
    // Audio appended before the start takes effect now.
    giveDuePartials(recognition);
    if (recognition->record.endAudioAt) answerEndOfAudio(recognition);
  }

  void append(const Pointer& recognition, const PCMBuffer& buffer) {
    if (timeline_.hasEnded()) return;
    if (recognition->hasEnded || recognition->record.endAudioAt) {
      ++recognition->record.droppedBuffers;
      recognition->record.droppedFirstSamples.push_back(palaver::record(buffer).firstSample);
      return;
    }
    const auto& taken = recognition->record.buffers.emplace_back(palaver::record(buffer));
    if (taken.loudness > 0) recognition->sound += taken.frames * millisecondsPerFrame;
    giveDuePartials(recognition);
  }

  // endAudio() and cancel() return the answer to give inside the call, without the lock, if there is one.
  std::optional<RecognitionAnswer> endAudio(const Pointer& recognition) {
    if (timeline_.hasEnded() || recognition->record.endAudioAt) return std::nullopt;
    recognition->record.endAudioAt = timeline_.now();
    if (!recognition->handler) return std::nullopt;
    if (recognition->record.isProbe() || !state_.answersInsideEndAudio) {
      answerEndOfAudio(recognition);
      return std::nullopt;
    }
    if (recognition->hasEnded) return std::nullopt;
    const auto answer = answerToEndOfAudio(*recognition);
    note(*recognition, answer);
    return answer;
  }

  std::optional<RecognitionAnswer> cancel(const Pointer& recognition) {
    if (timeline_.hasEnded() || recognition->record.cancelledAt) return std::nullopt;
    recognition->record.cancelledAt = timeline_.now();
    if (recognition->hasEnded) return std::nullopt;
    recognition->hasEnded = true;
    if (state_.answersInsideCancel) return errorAnswer(cancelledError());
    if (state_.answersAfterCancel)
      call(recognition, *state_.answersAfterCancel, errorAnswer(cancelledError()));
    return std::nullopt;
  }

  void failAll(const PlatformError& error) {
    for (const auto& task : tasks_)
      if (task->isRunning()) answerLater(task, 0, [error] { return errorAnswer(error); });
  }

  // Calls the handler at that time, independent of the task's state then.
  void call(const Pointer& recognition, double delay, RecognitionAnswer answer) {
    timeline_.schedule(delay, callbackContext(), recognition.get(),
                       [self = shared_from_this(), recognition, answer = std::move(answer)] {
                         self->locked([&] { self->note(*recognition, answer); });
                         recognition->handler(answer.result, answer.error);
                       });
  }

  Pointer task(const TaskChoice& choice) const {
    if (choice.by == TaskChoice::By::sample) {
      const auto hasReceived = [&choice](const Pointer& task) {
        return std::ranges::any_of(task->record.buffers,
                                   [&](const auto& buffer) { return buffer.firstSample == choice.number; });
      };
      const auto found = std::find_if(tasks_.rbegin(), tasks_.rend(), hasReceived);
      return found == tasks_.rend() ? nullptr : *found;
    }
    const auto& tasks = choice.by == TaskChoice::By::probeStart ? probes_ : tasks_;
    const auto number = static_cast<std::size_t>(choice.number);
    if (tasks.empty() || number > tasks.size()) return nullptr;
    return tasks[(number == 0 ? tasks.size() : number) - 1];
  }

  std::vector<RecordedRequest> recorded(bool probes) {
    const std::lock_guard guard(lock_);
    std::vector<RecordedRequest> records;
    for (const auto& recognition : all_)
      if (recognition->record.isProbe() == probes) records.push_back(recognition->record);
    return records;
  }

  static RecognitionAnswer errorAnswer(PlatformError error) { return {std::nullopt, std::move(error)}; }

 private:
  // Creates an automatic result: one segment over all audio received.
  static RecognitionAnswer resultAnswer(const Recognition& recognition, const std::string& text,
                                        bool isFinal) {
    return {RecognitionResult{text, {{text, 0, recognition.sound / 1000}}, isFinal}, std::nullopt};
  }

  void giveDuePartials(const Pointer& recognition) {
    if (!recognition->handler || !recognition->utterance || recognition->record.isProbe()) return;
    const auto& partials = recognition->utterance->partials;
    for (auto& next = recognition->nextPartial;
         next < partials.size() && recognition->sound >= partials[next].afterAudio; ++next)
      answerLater(recognition, 0,
                  [answer = resultAnswer(*recognition, partials[next].text, false)] { return answer; });
  }

  void answerEndOfAudio(const Pointer& recognition) {
    const auto weak = std::weak_ptr(recognition);
    if (!recognition->record.isProbe()) {
      if (const auto after = state_.answersAfterEndAudio)
        answerLater(recognition, *after, [weak] { return answerToEndOfAudio(*weak.lock()); });
      return;
    }
    std::optional<RecognitionAnswer> own;
    auto after = state_.probeAnswersAfter;
    if (auto& next = state_.nextProbeAnswers; !next.empty()) {
      own = std::move(next.front().answer);
      after = next.front().after;
      next.pop_front();
    }
    if (!after) return;
    answerLater(recognition, *after, [this, weak, own = std::move(own)] {
      if (!state_.dictationIsOn) return errorAnswer(dictationDisabledError());
      if (const auto answer = scriptedFinal(*weak.lock())) return *answer;
      return own.value_or(state_.probeAnswer);
    });
  }

  // Returns the final of the task's own script, if it has one and has received sound.
  static std::optional<RecognitionAnswer> scriptedFinal(const Recognition& recognition) {
    if (!recognition.utterance || recognition.sound == 0) return std::nullopt;
    auto text = recognition.utterance->finalText;
    if (text.empty()) text = recognition.newest.formattedString;
    if (text.empty()) return std::nullopt;
    return resultAnswer(recognition, text, true);
  }

  static RecognitionAnswer answerToEndOfAudio(const Recognition& recognition) {
    if (const auto answer = scriptedFinal(recognition)) return *answer;
    auto result = recognition.newest;
    result.isFinal = true;
    if (result.formattedString.empty()) return errorAnswer(noSpeechError());
    return {std::move(result), std::nullopt};
  }

  // Calls the handler with the answer determined at that time, unless the task has ended by then.
  template <typename MakeAnswer>
  void answerLater(const Pointer& recognition, double delay, MakeAnswer makeAnswer) {
    timeline_.schedule(delay, callbackContext(), recognition.get(),
                       [self = shared_from_this(), recognition, makeAnswer] {
                         std::optional<RecognitionAnswer> answer;
                         self->locked([&] {
                           if (recognition->hasEnded) return;
                           answer = makeAnswer();
                           self->note(*recognition, *answer);
                         });
                         if (answer) recognition->handler(answer->result, answer->error);
                       });
  }

  void note(Recognition& recognition, const RecognitionAnswer& answer) {
    if (recognition.hasEnded && !recognition.record.cancelledAt) ++recognition.record.answersAfterEnd;
    if (answer.result) recognition.newest = *answer.result;
    if (!answer.error && !(answer.result && answer.result->isFinal)) return;
    if (!recognition.hasEnded) recognition.record.endedAt = timeline_.now();
    recognition.hasEnded = true;
  }

  Timeline& timeline_;
  RecognitionState state_;
  std::vector<Pointer> all_;
  std::vector<Pointer> tasks_;  // without the probes
  std::vector<Pointer> probes_;
  std::mutex lock_;
};

class SimulatedSpeechRecognition::Request final : public RecognitionRequest {
 public:
  Request(std::shared_ptr<Service> service, Service::Pointer recognition)
      : service_(std::move(service)), recognition_(std::move(recognition)) {}

  void append(std::shared_ptr<const PCMBuffer> buffer) override {
    service_->locked([&] { service_->append(recognition_, *buffer); });
  }
  void endAudio() override {
    const auto answer = service_->locked([&] { return service_->endAudio(recognition_); });
    if (answer) recognition_->handler(answer->result, answer->error);
  }
  const Service::Pointer& recognition() const { return recognition_; }

 private:
  std::shared_ptr<Service> service_;
  Service::Pointer recognition_;
};

class SimulatedSpeechRecognition::Task final : public RecognitionTask {
 public:
  Task(std::shared_ptr<Service> service, Service::Pointer recognition)
      : service_(std::move(service)), recognition_(std::move(recognition)) {}

  void cancel() override {
    const auto answer = service_->locked([&] { return service_->cancel(recognition_); });
    if (answer) recognition_->handler(answer->result, answer->error);
  }

 private:
  std::shared_ptr<Service> service_;
  Service::Pointer recognition_;
};

class SimulatedSpeechRecognition::Recognizer final : public SpeechRecognizer {
 public:
  Recognizer(std::shared_ptr<Service> service, std::string locale)
      : service_(std::move(service)), locale_(std::move(locale)) {}

  bool supportsOnDeviceRecognition() const override {
    return service_->locked([&] {
      const auto found = service_->state().locales.find(locale_);
      return found != service_->state().locales.end() && found->second;
    });
  }
  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
    auto recognition =
        service_->locked([&] { return service_->makeRecognition(locale_, std::move(options)); });
    return std::make_shared<Request>(service_, std::move(recognition));
  }
  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override {
    const auto& recognition = static_cast<const Request&>(*request).recognition();
    service_->locked([&] { service_->start(recognition, std::move(handler)); });
    return std::make_unique<Task>(service_, recognition);
  }

 private:
  std::shared_ptr<Service> service_;
  std::string locale_;
};

SimulatedSpeechRecognition::SimulatedSpeechRecognition(Timeline& timeline, RecognitionState state)
    : service_(std::make_shared<Service>(timeline, std::move(state))) {}

SimulatedSpeechRecognition::~SimulatedSpeechRecognition() = default;

AuthorizationStatus SimulatedSpeechRecognition::authorizationStatus() const {
  return state().authorization;
}

void SimulatedSpeechRecognition::requestAuthorization(std::function<void(AuthorizationStatus)> handler) {
  const auto current = state();
  if (current.neverAnswersAuthorization) return;
  const auto answer = current.authorizationAnswer.value_or(
      RecognitionState::AuthorizationAnswer{.status = current.authorization, .after = 0});
  const auto give = [service = service_, status = answer.status, handler = std::move(handler)] {
    service->locked([&] { service->state().authorization = status; });
    handler(status);
  };
  if (!answer.after) return give();
  service_->timeline().schedule(*answer.after, service_->callbackContext(), service_.get(), give);
}

std::unique_ptr<SpeechRecognizer> SimulatedSpeechRecognition::makeRecognizer(
    std::string_view localeIdentifier) {
  if (!state().locales.contains(localeIdentifier)) return nullptr;
  return std::make_unique<Recognizer>(service_, std::string(localeIdentifier));
}

RecognitionState SimulatedSpeechRecognition::state() const {
  return service_->locked([&] { return service_->state(); });
}

void SimulatedSpeechRecognition::setState(RecognitionState state) {
  service_->locked([&] {
    const bool wasOn = std::exchange(service_->state(), std::move(state)).dictationIsOn;
    if (wasOn && !service_->state().dictationIsOn) service_->failAll(dictationDisabledError());
  });
}

bool SimulatedSpeechRecognition::answer(const TaskChoice& task, RecognitionAnswer answer, double delay) {
  return service_->locked([&] {
    const auto recognition = service_->task(task);
    if (recognition) service_->call(recognition, delay, std::move(answer));
    return recognition != nullptr;
  });
}

std::vector<RecordedRequest> SimulatedSpeechRecognition::requests() const {
  return service_->recorded(false);
}

std::vector<RecordedRequest> SimulatedSpeechRecognition::probes() const {
  return service_->recorded(true);
}

}  // namespace palaver
