#include "platform/linux/models/ONNXMetadata.h"

#include <array>
#include <fstream>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

namespace palaver {

namespace {

// Wire types of Protocol Buffers.
enum WireType : std::uint32_t { varint = 0, fixed64 = 1, lengthDelimited = 2, fixed32 = 5 };

constexpr std::uint32_t graphField = 7;
constexpr std::uint32_t metadataField = 14;
constexpr std::uint32_t keyField = 1;
constexpr std::uint32_t valueField = 2;
constexpr std::array<std::uint32_t, 2> outputPath{graphField, 12};
constexpr std::array<std::uint32_t, 4> dimensionPath{2, 1, 2, 1};  // of an output
constexpr std::uint32_t dimensionValueField = 1;

[[noreturn]] void failFormat() {
  throw std::runtime_error("is not an ONNX model or is damaged");
}

// Reads the fields of messages up to an end that is known.
class FieldReader {
 public:
  FieldReader(std::istream& stream, std::uint64_t size) : stream_(stream), size_(size) {}

  std::uint64_t position() const { return position_; }

  std::uint64_t number(std::uint64_t end) {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      if (position_ >= end) failFormat();
      const int byte = stream_.get();
      if (byte == std::istream::traits_type::eof()) failFormat();
      ++position_;
      value |= (static_cast<std::uint64_t>(byte) & 0x7FU) << shift;
      if ((static_cast<unsigned>(byte) & 0x80U) == 0) return value;
    }
    failFormat();
  }

  void skip(std::uint64_t count, std::uint64_t end) {
    if (count > end - position_ || end > size_) failFormat();
    position_ += count;
    if (!stream_.seekg(static_cast<std::streamoff>(count), std::ios::cur)) failFormat();
  }

  std::string text(std::uint64_t count, std::uint64_t end) {
    if (count > end - position_ || count > maxONNXMetadataText) failFormat();
    std::string text(static_cast<std::size_t>(count), '\0');
    if (!stream_.read(text.data(), static_cast<std::streamsize>(count))) failFormat();
    position_ += count;
    return text;
  }

  // Skips the value of a field that is not read.
  void skipValue(std::uint32_t wireType, std::uint64_t end) {
    switch (wireType) {
      case varint:
        number(end);
        break;
      case fixed64:
        skip(8, end);
        break;
      case lengthDelimited: {
        const auto count = number(end);
        skip(count, end);
        break;
      }
      case fixed32:
        skip(4, end);
        break;
      default:
        failFormat();
    }
  }

 private:
  std::istream& stream_;
  const std::uint64_t size_;
  std::uint64_t position_ = 0;
};

std::pair<std::uint32_t, std::uint32_t> splitTag(std::uint64_t tag) {
  if (tag >> 3 == 0 || tag >> 32 != 0) failFormat();
  return {static_cast<std::uint32_t>(tag >> 3), static_cast<std::uint32_t>(tag & 7U)};
}

std::pair<std::string, std::string> readEntry(FieldReader& reader, std::uint64_t end) {
  std::pair<std::string, std::string> entry;
  while (reader.position() < end) {
    const auto [field, wireType] = splitTag(reader.number(end));
    if (wireType != lengthDelimited || (field != keyField && field != valueField)) {
      reader.skipValue(wireType, end);
      continue;
    }
    const auto count = reader.number(end);
    (field == keyField ? entry.first : entry.second) = reader.text(count, end);
  }
  return entry;
}

// Reads the length of a message and returns the position of its end.
std::uint64_t messageEnd(FieldReader& reader, std::uint64_t end) {
  const auto length = reader.number(end);
  if (length > end - reader.position()) failFormat();
  return reader.position() + length;
}

// Calls `visit` with the end of each message to which the path of fields leads. It need not read the message.
template <typename Visit>
void visitMessages(FieldReader& reader, std::uint64_t end, std::span<const std::uint32_t> path,
                   const Visit& visit) {
  while (reader.position() < end) {
    const auto [field, wireType] = splitTag(reader.number(end));
    if (wireType != lengthDelimited || field != path.front()) {
      reader.skipValue(wireType, end);
      continue;
    }
    const auto inner = messageEnd(reader, end);
    if (path.size() == 1) {
      visit(inner);
    } else {
      visitMessages(reader, inner, path.subspan(1), visit);
    }
    reader.skip(inner - reader.position(), inner);
  }
}

// Reads a dimension, which has a number, a name or nothing.
std::optional<std::size_t> readDimension(FieldReader& reader, std::uint64_t end) {
  std::optional<std::size_t> dimension;
  while (reader.position() < end) {
    const auto [field, wireType] = splitTag(reader.number(end));
    if (field == dimensionValueField && wireType == varint) {
      dimension = reader.number(end);
    } else {
      reader.skipValue(wireType, end);
    }
  }
  return dimension;
}

struct SizedFile {
  std::ifstream stream;
  std::uint64_t size = 0;
};

SizedFile openFile(const std::string& file) {
  std::ifstream stream(file, std::ios::binary | std::ios::ate);
  const auto size = stream.tellg();
  if (!stream || size < 0) throw std::runtime_error("cannot be read");
  stream.seekg(0);
  return {std::move(stream), static_cast<std::uint64_t>(size)};
}

}  // namespace

ONNXMetadata readONNXMetadata(std::istream& stream, std::uint64_t size) {
  FieldReader reader(stream, size);
  ONNXMetadata metadata;
  bool hasGraph = false;
  while (reader.position() < size) {
    const auto [field, wireType] = splitTag(reader.number(size));
    if (field == metadataField && wireType == lengthDelimited) {
      const auto end = messageEnd(reader, size);
      if (metadata.size() >= maxONNXMetadataEntries) failFormat();
      auto entry = readEntry(reader, end);
      metadata.insert_or_assign(std::move(entry.first), std::move(entry.second));
    } else {
      hasGraph = hasGraph || (field == graphField && wireType == lengthDelimited);
      reader.skipValue(wireType, size);
    }
  }
  if (!hasGraph) failFormat();
  return metadata;
}

ONNXMetadata readONNXMetadata(const std::string& file) {
  auto [stream, size] = openFile(file);
  return readONNXMetadata(stream, size);
}

std::optional<std::size_t> readONNXOutputWidth(std::istream& stream, std::uint64_t size) {
  FieldReader reader(stream, size);
  std::optional<std::size_t> width;
  bool isFirst = true;
  visitMessages(reader, size, outputPath, [&](std::uint64_t end) {
    if (!std::exchange(isFirst, false)) return;
    visitMessages(reader, end, dimensionPath,
                  [&](std::uint64_t dimension) { width = readDimension(reader, dimension); });
  });
  return width;
}

std::optional<std::size_t> readONNXOutputWidth(const std::string& file) {
  auto [stream, size] = openFile(file);
  return readONNXOutputWidth(stream, size);
}

}  // namespace palaver
