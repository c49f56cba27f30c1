// Lists the models in tests/models, one of each kind, which recognize tones as words
// (tests/models/make_models.py).
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/models/SherpaModel.h"

namespace palaver {

struct TestModel {
  std::string name;  // of the folder
  SherpaModelKind kind{};
  std::string locale;
  // What it recognizes of a low, a middle and a high tone after each other, and of one middle tone.
  std::vector<std::string> words;
  std::string middle;
  // Keys of the metadata without which the model works.
  std::vector<std::string> optionalKeys;
  std::string
      hotword{};  // what it recognizes of the highest tone when that is a phrase, where it takes phrases
  bool hasTimes = true;  // else those of its words are estimates

  std::filesystem::path folder() const {
    return std::filesystem::path(PALAVER_SOURCE_DIR) / "tests/models" / name;
  }
  friend std::ostream& operator<<(std::ostream& stream, const TestModel& model) {
    return stream << model.name;
  }
};

inline const std::vector<TestModel>& testModels() {
  using Kind = SherpaModelKind;
  const std::vector<std::string> japanese{"低", "中", "高"};
  const std::vector<std::string> english{"low", "middle", "high"};
  const std::vector<std::string> numbers{"one", "two", "three"};
  const std::vector<std::string> any{"tone", "tone", "tone"};
  static const std::vector<TestModel> models{
      {"tones", Kind::onlineTransducer, "ja-JP", japanese, "中", {"joiner_dim"}, "花"},
      {"streaming-lstm", Kind::onlineTransducer, "ja-JP", japanese, "中", {"version", "joiner_dim"}, "花"},
      {"streaming-zipformer",
       Kind::onlineTransducer,
       "en-US",
       english,
       "middle",
       {"version", "joiner_dim"},
       "flower"},
      {"streaming-zipformer2",
       Kind::onlineTransducer,
       "ja-JP",
       japanese,
       "中",
       {"comment", "version", "joiner_dim"},
       "花"},
      {"streaming-nemo",
       Kind::onlineTransducer,
       "ja-JP",
       {"一", "二", "三"},
       "一",
       {"model_type", "normalize_type", "version"}},
      {"streaming-nemo-multilingual",
       Kind::onlineTransducer,
       "en-US",
       numbers,
       "one",
       {"model_type", "normalize_type", "version", "prompt_dictionary", "auto_prompt_id"}},
      {"streaming-zipformer2-ctc",
       Kind::onlineZipformerCTC,
       "ja-JP",
       japanese,
       "中",
       {"comment", "model_type", "version"}},
      {"streaming-nemo-ctc",
       Kind::onlineNeMoCTC,
       "en-US",
       any,
       "tone",
       {"model_type", "normalize_type", "version"}},
      {"streaming-paraformer", Kind::onlineParaformer, "zh-CN", japanese, "中", {"version"}, "", false},
      {"zipformer",
       Kind::offlineTransducer,
       "ja-JP",
       japanese,
       "中",
       {"model_type", "version", "joiner_dim"}},
      {"nemo", Kind::offlineNeMoTransducer, "en-US", numbers, "one", {"normalize_type", "version"}},
      {"nemo-tdt",
       Kind::offlineNeMoTransducer,
       "en-US",
       numbers,
       "one",
       {"normalize_type", "feat_dim", "version"}},
      {"nemo-ctc", Kind::offlineNeMoCTC, "en-US", any, "tone", {"normalize_type", "version"}},
      {"zipformer-ctc", Kind::offlineZipformerCTC, "ja-JP", japanese, "中", {"version"}},
      {"wenet-ctc", Kind::offlineWeNetCTC, "zh-CN", japanese, "中", {"version"}},
      {"telespeech-ctc", Kind::offlineTeleSpeechCTC, "zh-CN", {"音", "音", "音"}, "音", {"version"}},
      {"paraformer", Kind::offlineParaformer, "zh-CN", japanese, "中", {"version"}},
      {"paraformer-without-peaks", Kind::offlineParaformer, "zh-CN", japanese, "中", {"version"}, "", false},
      {"sense-voice", Kind::offlineSenseVoice, "ja-JP", {"低。", "中。", "高。"}, "中。", {"version"}},
      {"moonshine", Kind::offlineMoonshine, "en-US", english, "middle", {}, "", false},
      {"moonshine-merged", Kind::offlineMoonshineMerged, "en-US", english, "middle", {}, "", false},
      {"moonshine-merged-ort", Kind::offlineMoonshineMerged, "en-US", english, "middle", {}, "", false},
  };
  return models;
}

// Returns the name for a parametrized test.
inline std::string testName(const TestModel& model) {
  std::string name = model.name;
  std::ranges::replace(name, '-', '_');
  return name;
}

inline std::string readBytes(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::runtime_error(file.string() + " cannot be read");
  return {std::istreambuf_iterator<char>(stream), {}};
}

// Returns an ONNX model without one key of its metadata.
inline std::string withoutMetadata(std::string_view bytes, std::string_view key) {
  std::size_t at = 0;
  const auto number = [&] {
    std::uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
      const auto byte = static_cast<unsigned char>(bytes.at(at++));
      value |= static_cast<std::uint64_t>(byte & 0x7FU) << shift;
      if ((byte & 0x80U) == 0) return value;
    }
  };
  std::string kept;
  while (at < bytes.size()) {
    const auto from = at;
    const auto tag = number();
    const auto length = number();
    const bool hasContent = (tag & 7U) == 2;
    // An entry starts with its key, which has the field 1 and a length below 128 here.
    const bool isEntry = hasContent && tag >> 3 == 14 && bytes.at(at) == 10 &&
                         bytes.substr(at + 2, static_cast<unsigned char>(bytes.at(at + 1))) == key;
    if (hasContent) at += length;
    if (!isEntry) kept += bytes.substr(from, at - from);
  }
  return kept;
}

}  // namespace palaver
