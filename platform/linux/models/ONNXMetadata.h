// Reads the metadata of an ONNX model without loading the model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <string>

namespace palaver {

using ONNXMetadata = std::map<std::string, std::string, std::less<>>;

// Limits of what is read. Published models stay far below them.
inline constexpr std::uint64_t maxONNXMetadataText = 1 << 20;  // bytes of a key or value
inline constexpr std::size_t maxONNXMetadataEntries = 1000;

// Reads the entries `metadata_props` (field 14 of ModelProto in onnx.proto), and skips everything else by its
// length: a file of a gigabyte costs a few reads. The stream must allow seeking. `size` is the number of its
// bytes. Any input is safe. Throws std::runtime_error when the bytes are not those of an ONNX model, with a
// text that continues a sentence, such as "is not an ONNX model".
ONNXMetadata readONNXMetadata(std::istream& stream, std::uint64_t size);

// The same for a file. Throws std::runtime_error also when it cannot be read.
ONNXMetadata readONNXMetadata(const std::string& file);

// Returns the last dimension of the model's first output (in ModelProto: graph 7, output 12, type 2,
// tensor_type 1, shape 2, dim 1, dim_value 1), or none when it has no fixed size. Reads and throws as above.
std::optional<std::size_t> readONNXOutputWidth(std::istream& stream, std::uint64_t size);
std::optional<std::size_t> readONNXOutputWidth(const std::string& file);

}  // namespace palaver
