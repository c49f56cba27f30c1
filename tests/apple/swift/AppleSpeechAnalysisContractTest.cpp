// Runs the analysis contract against the macOS analysis, over the simulated one and over a real recognizer.
#include "tests/apple/swift/AppleAnalysisSubject.h"
#include "tests/support/SpeechAnalysisContract.h"
#include "tests/support/SpeechAnalysisSubjects.h"

namespace palaver {
namespace {

INSTANTIATE_TEST_SUITE_P(OverSimulated, SpeechAnalysisContract, testing::Values([] {
                           return std::make_unique<AppleAnalysisSubject<SimulatedAnalysisSubject>>();
                         }));

INSTANTIATE_TEST_SUITE_P(OverRecognized, SpeechAnalysisContract, testing::Values([] {
                           return std::make_unique<AppleAnalysisSubject<RecognizedAnalysisSubject>>();
                         }));

}  // namespace
}  // namespace palaver
