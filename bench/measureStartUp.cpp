#include <unistd.h>

#include <stdexcept>

#include "bench/Child.h"
#include "bench/Usage.h"
#include "bench/measurements.h"

namespace palaver::bench {

namespace {

constexpr int rounds = 300;

// Returns the seconds from the start of the program to its first line. Its input stays empty and
// open until then.
double timeToFirstLine(const std::string& program) {
  Pipe input = makePipe();
  Pipe output = makePipe();
  const double start = monotonicSeconds();
  Child child({program}, input.readEnd.get(), output.writeEnd.get());
  output.writeEnd.close();
  std::string text;
  while (text.find('\n') == std::string::npos) {
    char some[4096];
    const ssize_t count = ::read(output.readEnd.get(), some, sizeof some);
    if (count <= 0) throw std::runtime_error(program + " printed no line");
    text.append(some, static_cast<std::size_t>(count));
  }
  const double seconds = monotonicSeconds() - start;
  input = {};
  readAll(output.readEnd.get());
  child.wait();
  return seconds;
}

}  // namespace

std::vector<Row> measureStartUp() {
  std::vector<double> helper, plain, ratio;
  for (int round = 0; round < rounds; ++round) {
    plain.push_back(timeToFirstLine(PALAVER_PRINT_LINE));
    helper.push_back(timeToFirstLine(PALAVER_HELPER));
    ratio.push_back(helper.back() / plain.back());
  }
  const auto millis = [](double seconds) { return figure(seconds * 1e3, 3, "ms"); };
  return {{"start-up to the first status line", millis(median(helper)), millis(median(plain)), median(ratio),
           Target::atMost, 1.5}};
}

}  // namespace palaver::bench
