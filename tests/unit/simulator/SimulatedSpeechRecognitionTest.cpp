#include "simulator/machine/SimulatedSpeechRecognition.h"

#include <memory>

#include "simulator/machine/Scheduler.h"
#include "tests/support/SpeechRecognitionContract.h"

namespace palaver {

namespace {

// Simulates a service in virtual time that answers every utterance alike.
class SimulatedSubject final : public SpeechRecognitionContractSubject {
 public:
  explicit SimulatedSubject(bool callbacksOnMainThread)
      : recognition_(scheduler_, state(callbacksOnMainThread)) {}
  ~SimulatedSubject() override { scheduler_.clear(); }

  SpeechRecognition& recognition() override { return recognition_; }
  std::string locale() override { return "ja-JP"; }
  std::vector<std::int16_t> speech() override { return std::vector<std::int16_t>(16000, 3000); }
  void deliver() override {
    constexpr double slice = 10, longEnough = 1000;  // ms
    for (const double end = scheduler_.now() + longEnough; scheduler_.now() < end;)
      scheduler_.runSlice(slice);
  }

 private:
  static RecognitionState state(bool callbacksOnMainThread) {
    RecognitionState state;
    state.callbacksOnMainThread = callbacksOnMainThread;
    state.answersAfterEndAudio = 100;
    state.utterances = {{{{200, "one"}, {500, "one two"}}, "one two three"}};
    return state;
  }

  Scheduler scheduler_;
  SimulatedSpeechRecognition recognition_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(SimulatedMainThread, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<SimulatedSubject>(true); }));
INSTANTIATE_TEST_SUITE_P(SimulatedBackground, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<SimulatedSubject>(false); }));

}  // namespace palaver
