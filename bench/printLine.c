/* Prints one line and exits: the lower limit of the start-up benchmark. */
#include <unistd.h>

int main(void) {
  static const char line[] = "{\"type\":\"helper.status\"}\n";
  return write(STDOUT_FILENO, line, sizeof line - 1) == sizeof line - 1 ? 0 : 1;
}
