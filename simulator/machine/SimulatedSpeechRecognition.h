// Speech recognition by script: it answers what it is told, when it is told, and keeps what reached it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "simulator/machine/Timeline.h"

namespace palaver {

// One call of a result handler.
struct RecognitionAnswer {
  std::optional<RecognitionResult> result;
  std::optional<PlatformError> error;
};

// Errors as macOS is known to give them. Source of domains and codes: reports of users; Apple documents none.
PlatformError noSpeechError();           // nothing was said
PlatformError dictationDisabledError();  // Siri and Dictation are switched off
PlatformError cancelledError();          // the request was cancelled

// What a task does by itself with its audio, for want of a script. Its results have one segment over all of
// the audio, silence aside.
struct SimulatedUtterance {
  struct Partial {
    double afterAudio;  // ms of audio received, silence (zeros) aside
    std::string text;
  };
  std::vector<Partial> partials;
  std::string finalText;  // empty: the newest partial
};

// The state of the recognition service and of the user's settings.
struct RecognitionState {
  struct AuthorizationAnswer {
    AuthorizationStatus status = AuthorizationStatus::authorized;
    std::optional<double> after;  // ms; none: from inside the call
  };

  AuthorizationStatus authorization = AuthorizationStatus::authorized;
  // What the user says to a request; none: the authorization as it is, at once. `asksInVain`: nothing ever.
  std::optional<AuthorizationAnswer> authorizationAnswer;
  bool asksInVain = false;

  std::map<std::string, bool, std::less<>> locales{{"ja-JP", true}};  // supported; whether installed too

  // While Dictation is off, every task fails with dictationDisabledError().
  bool dictationIsOn = true;
  // How a recognition without partial results answers once its audio has ended, while Dictation is on, and
  // after how many ms; none: never.
  RecognitionAnswer probeAnswer{std::nullopt, noSpeechError()};
  std::optional<double> probeAnswersAfter = 0;

  // Whether handlers are called on the main thread as platform callbacks, as macOS does, or in the
  // background.
  bool callbacksOnMainThread = true;

  // ms from the end of the audio to a final result of the newest text, or to noSpeechError(); none: only what
  // the script says.
  std::optional<double> answersAfterEndAudio;
  // ms from cancel() to cancelledError(); none: a cancelled task stays silent.
  std::optional<double> answersAfterCancel;
  // What tasks do by themselves: the first does the first of these, and so on, again from the start behind
  // the last.
  std::vector<SimulatedUtterance> utterances;
};

// What reached one request and its task.
struct RecordedRequest {
  struct Buffer {
    std::uint32_t frames;
    std::int16_t firstSample;  // 0 for an empty buffer
    double loudness;           // root mean square, full scale 1
  };

  std::string locale;
  RecognitionOptions options;
  double madeAt = 0;               // ms since the start, as are all times here
  std::vector<Buffer> buffers;     // those taken
  std::size_t droppedBuffers = 0;  // those that came after the end of the audio or of the task
  std::optional<double> endAudioAt;
  std::optional<double> cancelledAt;
  bool hasTask = false;

  // Asks for no partial results, as the probe for Dictation does.
  bool isProbe() const { return !options.shouldReportPartialResults; }
};

// Any thread, as far as the contract allows; handlers are called without any lock held. Tasks and requests
// keep what they need alive, but the timeline must outlive them all.
class SimulatedSpeechRecognition final : public SpeechRecognition {
 public:
  SimulatedSpeechRecognition(Timeline& timeline, RecognitionState state);
  ~SimulatedSpeechRecognition() override;

  AuthorizationStatus authorizationStatus() const override;
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override;
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;

  RecognitionState state() const;

  // Changes the state. Switching Dictation off fails all running tasks.
  void setState(RecognitionState state);

  // Calls the handler of a task, running or not, `delay` ms from now. Tasks are numbered from 1 as they
  // start, probes aside; 0 is the newest. Returns false when there is no such task.
  bool answer(std::size_t task, RecognitionAnswer answer, double delay = 0);

  // Copies of all requests so far, in the order in which they were made, without the probes or only those.
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
