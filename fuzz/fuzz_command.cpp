// Compares the command decoder, with each vector kernel of this processor, with the reference: both must
// accept the same lines with the same values. Compares its pass over text that goes on after the line, too.
#include <algorithm>

#include "fuzz/FuzzInput.h"
#include "tests/support/ReferenceDecoder.h"
#include "tests/unit/core/DecodedLine.h"

namespace {

using namespace palaver;

// Decodes the first line of the text in the pass that looks no further than a line feed.
void checkPlainCommand(std::string_view text, const VectorKernels& kernels) {
  const auto size = text.size() + 1;
  const auto bytes = std::make_unique_for_overwrite<char[]>(size + decodingPadding);
  *std::copy(text.begin(), text.end(), bytes.get()) = '\n';
  std::fill_n(bytes.get() + size, decodingPadding, '"');
  const auto plain = decodePlainCommand(bytes.get(), size, kernels);
  require(std::equal(text.begin(), text.end(), bytes.get()) && bytes[size - 1] == '\n',
          "the pass over plain text changes it");
  if (!plain) return;
  require(plain->length < size, "a plain command is longer than its line");
  require(text.substr(0, plain->length).find('\n') == std::string_view::npos,
          "a plain command goes on after a line feed");
  if (bytes[plain->length] != '\n') return;
  const DecodedLine line(text.substr(0, plain->length));
  require(line.accepted(), "a plain command is no command");
  require(copyOf(plain->command) == copyOf(line.command()), "a plain command has other values");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto line = text(data, size);
  const DecodedLine decoded(line);
  for (const VectorKernels* const kernels : supportedVectorKernels()) {
    checkPlainCommand(line, *kernels);
    if (kernels == &fastestVectorKernels()) continue;
    const DecodedLine other(line, *kernels);
    require(other.failure() == decoded.failure(), "another vector kernel fails differently");
    if (decoded.accepted())
      require(copyOf(other.command()) == copyOf(decoded.command()),
              "another vector kernel decodes other values");
  }
  if (mayDiffer(line, decoded.failure())) return 0;
  const auto reference = decodeReference(line);
  require(decoded.accepted() == reference.has_value(), "accepted by one side only");
  if (reference) require(copyOf(decoded.command()) == *reference, "different values");
  return 0;
}
