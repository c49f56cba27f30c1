// Compares input in reads of any size with the same input in few reads. The first eight bytes choose the
// sizes. The ninth chooses the longest line and what precedes the input:
//   0         the usual limit
//   1         the usual limit, and a blank line that almost fills a block: the input crosses its end
//   2         the usual limit, and a blank line without its end, longer than a block: the first line
//   continues it 3 to 255  a limit of as many bytes
#include <algorithm>
#include <cstring>

#include "core/CommandChannel.h"
#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "fuzz/FuzzInput.h"
#include "tests/unit/core/Fakes.h"

namespace {

using namespace palaver;

struct Outcome {
  std::vector<std::string> calls;
  std::string output, errors;
  int status = -1;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

Outcome play(std::string_view input, std::string_view sizes, std::size_t longestLine) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  RecordingBackend backend;
  CommandHandler handler(fake.platform, writer, backend);
  CommandChannel channel(fake.mainQueue, writer, handler, longestLine);
  for (std::size_t read = 0; !input.empty(); ++read) {
    const auto room = channel.prepare();
    const std::size_t wanted = sizes.empty()
                                   ? input.size()
                                   : std::size_t{1} + static_cast<unsigned char>(sizes[read % sizes.size()]);
    const auto count = std::min({room.size(), input.size(), wanted});
    std::memcpy(room.data(), input.data(), count);
    channel.received(count);
    input.remove_prefix(count);
  }
  channel.prepare();
  channel.ended();
  Outcome outcome;
  try {
    fake.mainQueue.runAll();
  } catch (const Exit& exit) {
    outcome.status = exit.status;
  }
  outcome.calls = backend.calls;
  outcome.output = fake.standardOutput.text();
  outcome.errors = fake.standardError.text();
  return outcome;
}

// Returns what precedes the input.
std::string blanks(std::uint8_t choice) {
  constexpr std::size_t blockBytes = std::size_t{256} << 10;
  if (choice == 1) return std::string(blockBytes - 100, ' ') + '\n';
  if (choice == 2) return std::string(blockBytes + 100, ' ');
  return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t choices = 9;
  if (size < choices) return 0;
  const auto sizes = text(data, choices - 1);
  const auto choice = data[choices - 1];
  const std::size_t longestLine = choice < 3 ? CommandChannel::usualLongestLine : choice;
  const auto input = blanks(choice).append(text(data + choices, size - choices));
  const auto whole = play(input, {}, longestLine), cut = play(input, sizes, longestLine);
  require(whole == cut, "the size of reads shows");
  require(whole.status == 0, "the end of input does not end the process with status 0");
  require(whole.errors.empty(), "an event could not be encoded");
  return 0;
}
