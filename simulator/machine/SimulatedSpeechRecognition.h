// Simulates speech recognition by script: delivers scripted results at scripted times and records its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "simulator/machine/Timeline.h"

namespace palaver {

// Arguments of one call of a result handler.
struct RecognitionAnswer {
  std::optional<RecognitionResult> result;
  std::optional<PlatformError> error;
};

// Errors as macOS reports them. Their domains and codes are unverified, as Apple documents none.
PlatformError noSpeechError();           // no speech detected
PlatformError dictationDisabledError();  // Siri and Dictation are off
PlatformError cancelledError();          // the request was cancelled

// Results of a task without a script. Each has one segment over all audio except silence.
struct SimulatedUtterance {
  struct Partial {
    double afterAudio;  // audio received except silence (zeros), ms
    std::string text;
  };
  std::vector<Partial> partials;
  std::string finalText;  // empty: use the newest partial
};

// State of the recognition service and of the user's settings.
struct RecognitionState {
  struct AuthorizationAnswer {
    AuthorizationStatus status = AuthorizationStatus::authorized;
    std::optional<double> after;  // ms; none: inside the call
  };

  AuthorizationStatus authorization = AuthorizationStatus::authorized;
  // The user's answer to a request. None: the current authorization, synchronously.
  // `neverAnswersAuthorization`: no answer.
  std::optional<AuthorizationAnswer> authorizationAnswer;
  bool neverAnswersAuthorization = false;

  std::map<std::string, bool, std::less<>> locales{{"ja-JP", true}};  // supported; value: whether installed

  // While Dictation is off, every task fails with dictationDisabledError().
  bool dictationIsOn = true;
  // Answer to a recognition without partial results once its audio has ended, while Dictation is on, and its
  // delay in ms. None: never.
  RecognitionAnswer probeAnswer{std::nullopt, noSpeechError()};
  std::optional<double> probeAnswersAfter = 0;
  // Answers to the next such recognitions, one each, instead.
  struct ProbeAnswer {
    RecognitionAnswer answer{std::nullopt, noSpeechError()};
    std::optional<double> after = 0;
  };
  std::deque<ProbeAnswer> nextProbeAnswers;

  // Whether handlers are called on the main thread as platform callbacks, as on macOS, or in the background.
  bool callbacksOnMainThread = true;

  // ms from the end of the audio to a final result of the newest text, or to noSpeechError(). None:
  // only scripted answers.
  std::optional<double> answersAfterEndAudio;
  // ms from cancel() to cancelledError(). None: a cancelled task calls no handler.
  std::optional<double> answersAfterCancel;
  // Whether these answers come inside the call instead, as if another thread gave them meanwhile.
  bool answersInsideEndAudio = false;
  bool answersInsideCancel = false;
  // Utterances of tasks without a script: the first task gets the first, and so on, starting over
  // after the last.
  std::vector<SimulatedUtterance> utterances;
};

// Records the input of one request and its task.
struct RecordedRequest {
  struct Buffer {
    std::uint32_t frames;
    std::int16_t firstSample;  // 0 for an empty buffer
    double loudness;           // root mean square, full scale 1
  };

  std::string locale;
  RecognitionOptions options;
  double madeAt = 0;               // ms since the start, as are all times here
  std::vector<Buffer> buffers;     // accepted buffers
  std::size_t droppedBuffers = 0;  // buffers after the end of the audio or of the task
  std::vector<std::int16_t> droppedFirstSamples;
  std::optional<double> endAudioAt;
  std::optional<double> cancelledAt;
  std::optional<double> endedAt;    // a final result or an error, before any cancellation
  std::size_t answersAfterEnd = 0;  // calls of the handler after that, against the contract
  bool hasTask = false;

  // Returns whether it requests no partial results, as the probe for Dictation does.
  bool isProbe() const { return !options.shouldReportPartialResults; }
};

// Chooses the task that answers.
struct TaskChoice {
  enum class By {
    start,       // from 1 in the order of their start, without the probes; 0 is the newest
    probeStart,  // from 1 in the order of their start, the probes only; 0 is the newest
    sample,      // the newest task that has received a buffer with this first sample
  };
  By by = By::start;
  std::int64_t number = 0;
};

// Any thread, as far as the contract allows. Handlers are called without a lock held. Tasks and requests keep
// alive what they need, but the timeline must outlive them all.
class SimulatedSpeechRecognition final : public SpeechRecognition {
 public:
  SimulatedSpeechRecognition(Timeline& timeline, RecognitionState state);
  ~SimulatedSpeechRecognition() override;

  AuthorizationStatus authorizationStatus() const override;
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override;
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;

  RecognitionState state() const;

  // Changes the state. Turning Dictation off fails all running tasks.
  void setState(RecognitionState state);

  // Calls the handler of a task, running or not, `delay` ms from now. Returns false when there is no
  // such task.
  bool answer(const TaskChoice& task, RecognitionAnswer answer, double delay = 0);

  // Returns copies of the records of all requests so far, in the order of their creation, without the probes
  // or only the probes.
  std::vector<RecordedRequest> requests() const;
  std::vector<RecordedRequest> probes() const;

 private:
  class Service;
  class Recognition;
  class Request;
  class Task;
  class Recognizer;

  std::shared_ptr<Service> service_;
};

}  // namespace palaver
