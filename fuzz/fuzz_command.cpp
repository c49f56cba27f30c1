// Compares the command decoder, with each vector kernel of this processor, with the reference: both must
// accept the same lines with the same values. Compares its pass over text that goes on after the line, too.
#include <string>

#include "fuzz/FuzzInput.h"
#include "tests/support/ReferenceDecoder.h"
#include "tests/unit/core/DecodedLine.h"
#include "tests/unit/core/plainCommandFault.h"

using namespace palaver;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto line = text(data, size);
  const DecodedLine decoded(line);
  for (const VectorKernels* const kernels : supportedVectorKernels()) {
    const auto fault = plainCommandFault(std::string(line) + "\n", *kernels);
    require(fault.empty(), fault.data());
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
