// Reads the metadata and the output of any bytes, whole and through the limits of a smaller stated size.
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

#include "fuzz/FuzzInput.h"
#include "platform/linux/models/ONNXMetadata.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace palaver;
  const std::string bytes(text(data, size));
  for (const auto stated : {size, size / 2}) {
    try {
      std::istringstream stream(bytes);
      const auto metadata = readONNXMetadata(stream, stated);
      if (metadata.size() > maxONNXMetadataEntries) std::abort();
      for (const auto& [key, value] : metadata)
        if (key.size() + value.size() > stated) std::abort();
    } catch (const std::runtime_error&) {
      // Most input is no model.
    }
    try {
      std::istringstream stream(bytes);
      readONNXOutputWidth(stream, stated);
    } catch (const std::runtime_error&) {
    }
  }
  return 0;
}
