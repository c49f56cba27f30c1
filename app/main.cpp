// Runs the helper on this machine's own platform.
#include "app/Helper.h"
#include "platform/Responsibility.h"
#include "platform/makePlatform.h"
#include "platform/posix/DisclaimedReexec.h"

int main(int argumentCount, char** arguments) {
  palaver::reexecDisclaimedIfNeeded(argumentCount, arguments, palaver::machineResponsibility());
  palaver::runHelper(palaver::makePlatform(argumentCount, arguments));
}
