// Compares input in reads of any size with the same input in few reads. The first eight bytes choose the
// sizes. The ninth chooses the longest line, the host and what precedes the input:
//
//   0         the usual limit
//   1         a line that almost fills a block, whose end the input crosses
//   2         a line longer than a block that ends within a string, which the input continues
//   3         a host that does not read
//   4 to 255  a limit of as many bytes
#include <algorithm>
#include <cstring>

#include "core/CommandChannel.h"
#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "fuzz/FuzzInput.h"
#include "tests/unit/core/Fakes.h"

namespace {

using namespace palaver;

constexpr std::uint8_t noReader = 3;

// Records what is written to a host that may not be reading.
class HostOutput final : public OutputStream {
 public:
  HostOutput(RecordingStream& stream, bool isRead) : stream_(stream), isRead_(isRead) {}
  void write(std::string_view bytes) override { stream_.write(bytes); }
  bool isWritable() const override { return isRead_; }

 private:
  RecordingStream& stream_;
  bool isRead_;
};

struct Outcome {
  std::vector<std::string> calls;
  std::string output, errors;
  int status = -1;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

// Feeds `before` in reads as large as possible, and then `input` in reads of these sizes; without sizes as
// large too.
Outcome play(std::string_view before, std::string_view input, std::string_view sizes, std::uint8_t choice) {
  FakePlatform fake;
  HostOutput output(fake.standardOutput, choice != noReader);
  JSONLineWriter writer(fake.clock, output, fake.standardError);
  RecordingBackend backend;
  CommandHandler handler(fake.platform, writer, backend);
  CommandChannel channel(fake.mainQueue, writer, handler,
                         choice <= noReader ? CommandChannel::usualLongestLine : choice);
  const auto feed = [&channel](std::string_view& bytes, std::size_t wanted) {
    const auto room = channel.prepare();
    const auto count = std::min({room.size(), bytes.size(), wanted});
    std::memcpy(room.data(), bytes.data(), count);
    channel.received(count);
    bytes.remove_prefix(count);
  };
  while (!before.empty()) feed(before, before.size());
  for (std::size_t read = 0; !input.empty(); ++read)
    feed(input, sizes.empty() ? input.size()
                              : std::size_t{1} + static_cast<unsigned char>(sizes[read % sizes.size()]));
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
std::string_view beginning(std::uint8_t choice) {
  constexpr std::size_t blockBytes = std::size_t{256} << 10;
  static const std::string line = R"({"type":"ping","text":")" + std::string(blockBytes - 100, 'a') + "\"}\n";
  static const std::string open = R"({"type":"ping","text":")" + std::string(blockBytes + 100, 'a');
  return choice == 1 ? line : choice == 2 ? open : std::string_view();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t choices = 9;
  if (size < choices) return 0;
  const auto sizes = text(data, choices - 1);
  const auto choice = data[choices - 1];
  const auto before = beginning(choice), input = text(data + choices, size - choices);
  // In the first, one read crosses from what precedes the input into it.
  const auto whole = play({}, std::string(before).append(input), {}, choice);
  const auto cut = play(before, input, sizes, choice);
  require(whole == cut, "the size of reads shows");
  require(whole.status == 0, "the end of input does not end the process with status 0");
  require(whole.errors.empty(), "an event could not be encoded");
  return 0;
}
