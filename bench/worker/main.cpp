// A speech worker with an engine that only reports when audio has reached it. For palaver_bench.
#include <cstdlib>

#include "bench/worker/TimingEngine.h"
#include "worker/WorkerServer.h"

int main() {
  palaver::bench::TimingEngine engine;
  palaver::WorkerServer(engine, "en-us", palaver::Descriptor(3)).run();
  std::_Exit(EXIT_SUCCESS);
}
