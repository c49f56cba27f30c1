// The program: the helper on this machine's own platform.
#include "core/Helper.h"
#include "platform/makePlatform.h"

int main(int argumentCount, char** arguments) {
  palaver::runHelper(palaver::makePlatform(argumentCount, arguments));
}
