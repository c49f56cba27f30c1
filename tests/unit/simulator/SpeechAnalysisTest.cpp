// Runs the contract tests on the simulated analysis and on the one with a real recognizer.
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
