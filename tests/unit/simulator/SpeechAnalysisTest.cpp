// The simulated analysis, and the one on a real recognizer, as every analysis must be.
#include "tests/support/SpeechAnalysisContract.h"
#include "tests/support/SpeechAnalysisSubjects.h"

namespace palaver {
namespace {

INSTANTIATE_TEST_SUITE_P(Simulated, SpeechAnalysisContract,
                         testing::Values([] { return std::make_unique<SimulatedAnalysisSubject>(); }));

INSTANTIATE_TEST_SUITE_P(Recognized, SpeechAnalysisContract,
                         testing::Values([] { return std::make_unique<RecognizedAnalysisSubject>(); }));

}  // namespace
}  // namespace palaver
