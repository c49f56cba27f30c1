// The program: the helper on this machine's own platform.
#include "core/DisclaimedReexec.h"
#include "core/Helper.h"
#include "platform/Responsibility.h"
#include "platform/makePlatform.h"

int main(int argumentCount, char** arguments) {
  palaver::reexecDisclaimedIfNeeded(argumentCount, arguments, palaver::machineResponsibility());
  palaver::runHelper(palaver::makePlatform(argumentCount, arguments));
}
