#include "platform/linux/models/ONNXMetadata.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

#include "tests/support/TemporaryFolder.h"

namespace palaver {
namespace {

const std::filesystem::path tones = std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models/tones";

// Encodes fields of Protocol Buffers.
std::string number(std::uint64_t value) {
  std::string bytes;
  for (; value >= 128; value >>= 7) bytes += static_cast<char>(value % 128 + 128);
  return bytes + static_cast<char>(value);
}
std::string field(std::uint32_t id, const std::string& content) {
  return number(id << 3 | 2) + number(content.size()) + content;
}
std::string entry(const std::string& key, const std::string& value) {
  return field(14, field(1, key) + field(2, value));
}
const std::string graph = field(7, "the graph");

ONNXMetadata read(const std::string& bytes) {
  std::istringstream stream(bytes);
  return readONNXMetadata(stream, bytes.size());
}

TEST(ONNXMetadata, EntriesOfModelAreRead) {
  const auto metadata = readONNXMetadata((tones / "encoder.onnx").string());
  EXPECT_EQ(metadata.at("model_type"), "conformer");
  EXPECT_EQ(metadata.at("decode_chunk_len"), "32");
}

TEST(ONNXMetadata, OtherFieldsAreSkipped) {
  const auto bytes = number(1 << 3) + number(8) + entry("a", "1") + graph + number(60 << 3 | 5) + "1234" +
                     number(61 << 3 | 1) + "12345678" + entry("b", "");
  EXPECT_EQ(read(bytes), (ONNXMetadata{{"a", "1"}, {"b", ""}}));
}

TEST(ONNXMetadata, ModelWithoutEntriesHasNone) {
  EXPECT_TRUE(read(graph).empty());
}

TEST(ONNXMetadata, EveryTruncationIsRefusedOrHarmless) {
  const auto bytes = graph + entry("model_type", "x");
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    if (length == graph.size()) continue;  // a whole model
    EXPECT_THROW(read(bytes.substr(0, length)), std::runtime_error) << length;
  }
}

TEST(ONNXMetadata, OversizedLengthsAreRefused) {
  EXPECT_THROW(read(number(7 << 3 | 2) + number(~std::uint64_t{0})), std::runtime_error);
  EXPECT_THROW(read(graph + number(14 << 3 | 2) + number(1 << 30)), std::runtime_error);
  EXPECT_THROW(read(graph + entry(std::string(maxONNXMetadataText + 1, 'k'), "")), std::runtime_error);
  std::string many = graph;
  for (std::size_t i = 0; i <= maxONNXMetadataEntries; ++i) many += entry(std::to_string(i), "");
  EXPECT_THROW(read(many), std::runtime_error);
}

TEST(ONNXMetadata, OtherFilesAreRefused) {
  EXPECT_THROW(read(""), std::runtime_error);
  EXPECT_THROW(read("#!/bin/sh\necho hello\n"), std::runtime_error);
  EXPECT_THROW(read(std::string(100, '\xff')), std::runtime_error);
  EXPECT_THROW(readONNXMetadata((tones / "absent.onnx").string()), std::runtime_error);
  EXPECT_THROW(readONNXMetadata(tones.string()), std::runtime_error) << "a folder";
}

// Encodes an output with these dimensions, of which 0 has a name instead.
std::string output(const std::vector<std::uint64_t>& dimensions) {
  std::string shape;
  for (const auto dimension : dimensions)
    shape += field(1, dimension == 0 ? field(2, "steps") : number(1 << 3) + number(dimension));
  return field(12, field(1, "out") + field(2, field(1, number(1 << 3) + number(1) + field(2, shape))));
}

std::optional<std::size_t> widthOf(const std::string& bytes) {
  std::istringstream stream(bytes);
  return readONNXOutputWidth(stream, bytes.size());
}

TEST(ONNXOutputWidth, LastDimensionOfFirstOutputIsRead) {
  EXPECT_EQ(widthOf(field(7, field(1, "node") + output({0, 4, 1030}) + output({7}))), 1030U);
  EXPECT_EQ(readONNXOutputWidth((tones / "joiner.onnx").string()), 7U);
}

TEST(ONNXOutputWidth, UnknownDimensionIsNone) {
  EXPECT_EQ(widthOf(field(7, output({4, 0}) + output({7}))), std::nullopt);
  EXPECT_EQ(widthOf(field(7, output({}))), std::nullopt);
  EXPECT_EQ(widthOf(field(7, "")), std::nullopt);
  EXPECT_EQ(widthOf(entry("a", "1")), std::nullopt);
}

TEST(ONNXOutputWidth, EveryTruncationIsRefused) {
  const auto bytes = field(7, output({4, 1030}));
  for (std::size_t length = 1; length < bytes.size(); ++length)
    EXPECT_THROW(widthOf(bytes.substr(0, length)), std::runtime_error) << length;
}

TEST(ONNXOutputWidth, LengthsBeyondTheirMessageAreRefused) {
  auto bytes = field(7, output({4, 1030}));
  bytes[3] = 127;  // the length of the output
  EXPECT_THROW(widthOf(bytes + std::string(200, '\0')), std::runtime_error);
}

TEST(ONNXMetadata, HugeGraphIsSkippedWithoutReadingIt) {
  const TemporaryFolder folder;
  const auto file = folder.path() / "huge.onnx";
  constexpr std::uint64_t size = std::uint64_t{3} << 30;
  {
    std::ofstream stream(file, std::ios::binary);
    stream << number(7 << 3 | 2) << number(size);
    stream.seekp(static_cast<std::streamoff>(size), std::ios::cur);
    stream << entry("model_type", "whisper-large");
  }
  EXPECT_EQ(readONNXMetadata(file.string()).at("model_type"), "whisper-large");
}

}  // namespace
}  // namespace palaver
