// Gives the program the function that macOS disclaims responsibility with, so that it starts its second
// process.
#include <spawn.h>

extern "C" [[gnu::visibility("default")]] int responsibility_spawnattrs_setdisclaim(posix_spawnattr_t*, int);

int responsibility_spawnattrs_setdisclaim(posix_spawnattr_t*, int) {
  return 0;
}
