// Recognizes speech for the helper in a process of its own, because an engine's library may crash, hang or
// end the process. Started by the helper: PalaverSpeechWorker ENGINE MODEL-FOLDER LOCALE, with a socket as
// descriptor 3.
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string_view>
#include <thread>

#include "platform/linux/WorkerFrames.h"
#include "worker/WorkerServer.h"
#include "worker/makeEngine.h"

namespace {

constexpr int helperSocket = 3;

bool isSocket(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

// Ends the process when the helper closes its end of the socket, whatever the other threads do.
void endWithHelper() {
  pollfd waiting{helperSocket, POLLRDHUP, 0};
  while (::poll(&waiting, 1, -1) < 0)
    if (errno != EINTR) std::_Exit(EXIT_FAILURE);  // it could not notice the end any more
  std::_Exit(EXIT_SUCCESS);
}

// Lets the helper know why there is no engine, until it closes the socket.
[[noreturn]] void refuse(const palaver::PlatformError& error) {
  const auto frame = palaver::encodeFailure(error);
  static_cast<void>(::send(helperSocket, frame.data(), frame.size(), MSG_NOSIGNAL));
  endWithHelper();
  std::abort();
}

}  // namespace

int main(int argumentCount, char** arguments) {
  // Also ends a worker that is stopped by a signal.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A memory image would contain what was said.
  constexpr rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  if (argumentCount < 2 || !isSocket(helperSocket)) {
    std::fputs("PalaverSpeechWorker is started by PalaverSTTHelper\n", stderr);
    return 2;
  }
  try {
    std::unique_ptr<palaver::SpeechRecognition> engine;
    try {
      std::thread(endWithHelper).detach();
      if (std::string_view(arguments[1]) != palaver::workerProtocolVersion || argumentCount != 5)
        throw palaver::PlatformError("SpeechWorker", 0,
                                     "the speech worker is of another version than the helper; restart the "
                                     "application, which starts the new helper");
      engine = palaver::makeEngine(arguments[2], arguments[3], arguments[4]);
    } catch (const palaver::PlatformError& error) {
      refuse(error);
    } catch (const std::exception& error) {  // no memory, no thread
      refuse(palaver::engineCannotStart(error));
    }
    palaver::WorkerServer(*engine, arguments[4], palaver::Descriptor(helperSocket)).run();
  } catch (const std::exception&) {
    std::_Exit(EXIT_FAILURE);  // the helper reports it
  }
  std::_Exit(EXIT_SUCCESS);  // without waiting for the engine's threads
}
