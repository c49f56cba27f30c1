#include "worker/pocketsphinx/ModelCheck.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <utility>
#include <vector>

#include "worker/pocketsphinx/PocketSphinxHandles.h"

// All formats are checked as little-endian, as the models are distributed. The library can swap bytes, but a
// big-endian model is rejected here.

namespace palaver {

namespace {

static_assert(std::endian::native == std::endian::little);

// Larger than any file of a model. Prevents reading anything else into memory.
constexpr std::uintmax_t maxFileSize = std::uintmax_t{1} << 31;

[[noreturn]] void fail(const std::filesystem::path& file, const std::string& reason) {
  throw recognizerError(RecognizerErrorCode::modelDamaged,
                        "The speech model file " + file.filename().string() + " is damaged: " + reason);
}

std::string readFile(const std::filesystem::path& file) {
  std::error_code error;
  const auto status = std::filesystem::status(file, error);
  if (!std::filesystem::is_regular_file(status)) fail(file, "it is not a file");
  const auto size = std::filesystem::file_size(file, error);
  if (error || size > maxFileSize) fail(file, "its size cannot be right");
  std::ifstream stream(file, std::ios::binary);
  if (!stream.is_open())
    throw recognizerError(
        RecognizerErrorCode::modelDamaged,
        "The speech model file " + file.filename().string() + " cannot be opened: " + std::strerror(errno));
  std::string contents(static_cast<std::size_t>(size), '\0');
  stream.read(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!stream) fail(file, "it cannot be read");
  if (contents.empty()) fail(file, "it is empty");
  return contents;
}

// Reads a binary file from front to back.
class Reader {
 public:
  Reader(const std::filesystem::path& file, std::string_view rest) : file_(file), rest_(rest) {}

  [[noreturn]] void fail(const std::string& reason) const { palaver::fail(file_, reason); }
  void require(bool condition, const std::string& reason) const {
    if (!condition) fail(reason);
  }

  std::string_view bytes(std::uint64_t count) {
    require(count <= rest_.size(), "it ends too early");
    const auto taken = rest_.substr(0, static_cast<std::size_t>(count));
    rest_.remove_prefix(taken.size());
    return taken;
  }

  template <typename Number>
  Number number() {
    Number value;
    std::memcpy(&value, bytes(sizeof value).data(), sizeof value);
    return value;
  }

  // Reads a size or count that must lie in the given range.
  std::uint64_t count(std::uint32_t least, std::uint32_t most, const std::string& what) {
    const auto value = number<std::uint32_t>();
    require(value >= least && value <= most, what + " cannot be right");
    return value;
  }

  void requireEnd() const { require(rest_.empty(), "something follows its end"); }
  std::string_view rest() const { return rest_; }

 private:
  const std::filesystem::path& file_;
  std::string_view rest_;
};

template <typename Number>
Number at(std::string_view table, std::uint64_t offset) {
  Number value;
  std::memcpy(&value, table.data() + offset, sizeof value);
  return value;
}

// Properties of the model definition that the other files must match.
struct AcousticModel {
  std::vector<std::string> phones;
  std::uint64_t states = 0;  // emitting states per phone
  std::uint64_t senones = 0;
  std::uint64_t transitionMatrices = 0;
};

// Limits of the library's types (16-bit senone and phone numbers) and plausible upper bounds.
constexpr std::uint32_t maxPhones = 255;
constexpr std::uint32_t maxTriphones = 10'000'000;
constexpr std::uint32_t maxSenones = 65534;
constexpr std::uint32_t maxStates = 16;

// Checks the binary model definition: the phones, the triphones with their senones and transition matrices,
// and the tree for finding triphones.
AcousticModel checkModelDefinition(const std::filesystem::path& file) {
  const std::string contents = readFile(file);
  Reader reader(file, contents);
  reader.require(reader.bytes(4) == "BMDF", "it is not a binary model definition");
  reader.require(reader.number<std::uint32_t>() == 1, "its version is unknown");
  reader.bytes(reader.count(0, 1 << 20, "the length of its description"));

  AcousticModel model;
  const auto phoneCount = reader.count(1, maxPhones, "its number of phones");
  const auto triphoneCount =
      reader.count(static_cast<std::uint32_t>(phoneCount), maxTriphones, "its number of triphones");
  model.states = reader.count(1, maxStates, "its number of states");
  const auto phoneSenones = reader.count(1, maxSenones, "its number of phone senones");
  model.senones = reader.count(static_cast<std::uint32_t>(phoneSenones), maxSenones, "its number of senones");
  model.transitionMatrices = reader.count(1, maxSenones, "its number of transition matrices");
  const auto sequenceCount = reader.count(1, maxTriphones, "its number of senone sequences");
  reader.count(3, 3, "its context size");
  const auto treeSize = reader.count(1, maxTriphones, "the size of its tree");
  const auto silence = reader.count(0, static_cast<std::uint32_t>(phoneCount - 1), "its silence phone");

  std::size_t nameBytes = 0;
  for (std::uint64_t i = 0; i < phoneCount; ++i) {
    const auto length = reader.rest().find('\0');
    reader.require(length != std::string_view::npos && length > 0 && length < 32, "a phone has no name");
    model.phones.emplace_back(reader.bytes(length));
    reader.bytes(1);
    nameBytes += length + 1;
  }
  reader.require(model.phones[silence] == "SIL", "its silence phone has another name");
  reader.require(std::ranges::is_sorted(model.phones), "its phones are not sorted");
  reader.bytes((4 - nameBytes % 4) % 4);

  // The tree: nodes of (context, number of children, first child or triphone).
  const auto tree = reader.bytes(treeSize * 8);
  for (std::uint64_t i = 0; i < treeSize; ++i) {
    const auto context = at<std::int16_t>(tree, i * 8);
    const auto children = at<std::int16_t>(tree, i * 8 + 2);
    const auto target = at<std::int32_t>(tree, i * 8 + 4);
    reader.require(context >= 0 &&
                       static_cast<std::uint64_t>(context) < std::max<std::uint64_t>(phoneCount, 4) &&
                       children >= 0,
                   "its tree is broken");
    if (children == 0) {
      reader.require(target >= -1 && target < static_cast<std::int64_t>(triphoneCount), "its tree is broken");
    } else {
      // Children must follow their parent, so that no search loops.
      reader.require(
          target > static_cast<std::int64_t>(i) &&
              static_cast<std::uint64_t>(target) + static_cast<std::uint64_t>(children) <= treeSize,
          "its tree is broken");
    }
  }
  // The triphones: (senone sequence, transition matrix, word position and contexts).
  const auto triphones = reader.bytes(triphoneCount * 12);
  for (std::uint64_t i = 0; i < triphoneCount; ++i) {
    const auto sequence = at<std::uint32_t>(triphones, i * 12);
    const auto matrix = at<std::uint32_t>(triphones, i * 12 + 4);
    reader.require(sequence < sequenceCount && matrix < model.transitionMatrices, "a triphone is broken");
    if (i < phoneCount) continue;
    const auto position = at<std::uint8_t>(triphones, i * 12 + 8);
    reader.require(position < 4, "a triphone is broken");
    for (std::uint64_t k = 9; k < 12; ++k)
      reader.require(at<std::uint8_t>(triphones, i * 12 + k) < phoneCount, "a triphone is broken");
  }
  // The senone sequences, 16-bit numbers.
  const auto sequenceEntries = sequenceCount * model.states;
  reader.require(reader.count(0, ~0U, "") == sequenceEntries,
                 "the size of its senone sequences cannot be right");
  const auto sequences = reader.bytes(sequenceEntries * 2);
  for (std::uint64_t i = 0; i < sequenceEntries; ++i)
    reader.require(at<std::uint16_t>(sequences, i * 2) < model.senones, "a senone sequence is broken");
  reader.requireEnd();
  return model;
}

// Opens a file of parameters: a text header, a byte-order mark, 32-bit numbers, and their checksum. Verifies
// the checksum and returns a reader of the numbers.
Reader openParameters(const std::filesystem::path& file, std::string_view contents) {
  constexpr std::string_view endOfHeader = "endhdr\n";
  Reader whole(file, contents);
  whole.require(contents.starts_with("s3\n"), "its header is unknown");
  const auto header = contents.find(endOfHeader);
  whole.require(header != std::string_view::npos, "its header has no end");
  whole.require(contents.substr(0, header).find("chksum0 yes") != std::string_view::npos,
                "it has no checksum");
  whole.bytes(header + endOfHeader.size());
  whole.require(whole.number<std::uint32_t>() == 0x11223344, "its byte order is unknown");
  whole.require(whole.rest().size() >= 4 && whole.rest().size() % 4 == 0, "it ends too early");

  const auto numbers = whole.rest().substr(0, whole.rest().size() - 4);
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < numbers.size(); i += 4)
    sum = std::rotl(sum, 20) + at<std::uint32_t>(numbers, i);
  whole.require(sum == at<std::uint32_t>(whole.rest(), numbers.size()), "its checksum is wrong");
  return {file, numbers};
}

void checkFinite(Reader& reader, std::uint64_t count) {
  const auto table = reader.bytes(count * 4);
  for (std::uint64_t i = 0; i < count; ++i)
    reader.require(std::isfinite(at<float>(table, i * 4)), "a value is not a number");
  reader.requireEnd();
}

// Dimensions of the Gaussians: codebooks, feature streams, densities, and the length of each stream.
using Dimensions = std::vector<std::uint64_t>;

Dimensions checkGaussians(const std::filesystem::path& file) {
  const std::string contents = readFile(file);
  Reader reader = openParameters(file, contents);
  Dimensions dimensions;
  dimensions.push_back(reader.count(1, maxSenones, "its number of codebooks"));
  dimensions.push_back(reader.count(1, 16, "its number of streams"));
  dimensions.push_back(reader.count(1, 65536, "its number of densities"));
  std::uint64_t length = 0;
  for (std::uint64_t i = 0; i < dimensions[1]; ++i) {
    dimensions.push_back(reader.count(1, 1024, "the length of a stream"));
    length += dimensions.back();
  }
  const std::uint64_t values = dimensions[0] * dimensions[2] * length;
  reader.require(reader.count(0, ~0U, "") == values, "its size does not fit its dimensions");
  checkFinite(reader, values);
  return dimensions;
}

void checkTransitionMatrices(const std::filesystem::path& file, const AcousticModel& model) {
  const std::string contents = readFile(file);
  Reader reader = openParameters(file, contents);
  const auto matrices = reader.count(1, maxSenones, "its number of matrices");
  const auto from = reader.count(1, maxStates, "its number of states");
  const auto to = reader.count(1, maxStates + 1, "its number of states");
  reader.require(matrices == model.transitionMatrices && from == model.states && to == from + 1,
                 "it does not fit the model definition");
  reader.require(reader.count(0, ~0U, "") == matrices * from * to, "its size does not fit its dimensions");
  checkFinite(reader, matrices * from * to);
}

// Checks the mixture weights: bytes, one row for each feature stream and density.
void checkMixtureWeights(const std::filesystem::path& file, const AcousticModel& model,
                         const Dimensions& gaussians) {
  const std::string contents = readFile(file);
  Reader reader(file, contents);
  const auto requireSetting = [&reader](std::string_view text, std::string_view name,
                                        std::uint64_t expected) {
    if (!text.starts_with(name)) return;
    text.remove_prefix(name.size());
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    reader.require(value == expected, "it does not fit the other files");
  };
  for (int i = 0;; ++i) {
    reader.require(i < 100, "its header has no end");
    const auto length = reader.count(0, 4096, "the length of a header line");
    if (length == 0) break;
    const auto text = reader.bytes(length);
    reader.require(i > 0 || text.starts_with("BEGIN FILE FORMAT DESCRIPTION"), "its header is unknown");
    requireSetting(text, "cluster_count ", 0);
    requireSetting(text, "feature_count ", gaussians[1]);
    requireSetting(text, "codebook_count ", 1);
    requireSetting(text, "model_count ", gaussians[2]);
    requireSetting(text, "mixw_count ", model.senones);
  }
  reader.require(
      reader.number<std::uint32_t>() == gaussians[2] && reader.number<std::uint32_t>() == model.senones,
      "it does not fit the other files");
  reader.bytes(gaussians[1] * gaussians[2] * model.senones);
  reader.requireEnd();
}

std::vector<std::string_view> split(std::string_view line) {
  std::vector<std::string_view> parts;
  constexpr std::string_view blanks = " \t\r";
  for (;;) {
    const auto start = line.find_first_not_of(blanks);
    if (start == std::string_view::npos) return parts;
    line.remove_prefix(start);
    parts.push_back(line.substr(0, line.find_first_of(blanks)));
    line.remove_prefix(parts.back().size());
  }
}

// Calls handle(parts) for each line that is not blank. The last line must end with a line feed.
template <typename Handle>
void forEachLine(const std::filesystem::path& file, std::string_view contents, Handle handle) {
  if (!contents.ends_with('\n')) fail(file, "its last line is not complete");
  while (!contents.empty()) {
    const auto line = contents.substr(0, contents.find('\n'));
    contents.remove_prefix(line.size() + 1);
    if (const auto parts = split(line); !parts.empty()) handle(parts);
  }
}

// Checks the parameters of the audio's features: names and values. Only known names are accepted.
void checkFeatureParameters(const std::filesystem::path& file, const Dimensions& gaussians) {
  const std::string contents = readFile(file);
  struct Range {
    std::string_view name;
    double least;
    double most;
  };
  // The values allowed by the library that are meaningful at 16 kHz.
  static constexpr std::array ranges{
      Range{"-lowerf", 0, 7999},  Range{"-upperf", 1, 8000}, Range{"-nfilt", 13, 100},
      Range{"-lifter", 0, 100},   Range{"-ncep", 13, 13},    Range{"-alpha", 0, 1},
      Range{"-wlen", 0.01, 0.05}, Range{"-frate", 100, 100}, Range{"-samprate", 16000, 16000}};
  struct Choice {
    std::string_view name;
    std::vector<std::string_view> values;
  };
  static const std::array choices{Choice{"-transform", {"dct", "legacy", "htk"}},
                                  Choice{"-feat", {"1s_c_d_dd"}},
                                  Choice{"-svspec", {"0-12/13-25/26-38"}},
                                  Choice{"-agc", {"none"}},
                                  Choice{"-cmn", {"batch", "live", "current", "prior"}},
                                  Choice{"-varnorm", {"no"}},
                                  Choice{"-model", {"ptm"}},
                                  Choice{"-remove_noise", {"yes", "no"}},
                                  Choice{"-round_filters", {"yes", "no"}},
                                  Choice{"-unit_area", {"yes", "no"}},
                                  Choice{"-dither", {"yes", "no"}}};
  std::set<std::string, std::less<>> seen;
  double lowest = 0;
  double highest = 8000;
  const auto number = [&file](std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
      fail(file, "a value is not a number");
    return value;
  };
  forEachLine(file, contents, [&](const std::vector<std::string_view>& parts) {
    if (parts.size() != 2) fail(file, "a line is not a name and a value");
    const auto name = parts[0];
    const auto value = parts[1];
    if (!seen.emplace(name).second) fail(file, "a name occurs twice");
    if (name == "-cmninit") {
      std::size_t count = 0;
      for (std::size_t start = 0; start <= value.size(); ++count) {
        const auto end = std::min(value.find(',', start), value.size());
        if (std::abs(number(value.substr(start, end - start))) > 1000) fail(file, "a value cannot be right");
        start = end + 1;
      }
      if (count != 13) fail(file, "a value cannot be right");
      return;
    }
    if (const auto range = std::ranges::find(ranges, name, &Range::name); range != ranges.end()) {
      const double parsed = number(value);
      if (parsed < range->least || parsed > range->most) fail(file, "a value cannot be right");
      if (name == "-lowerf") lowest = parsed;
      if (name == "-upperf") highest = parsed;
      return;
    }
    const auto choice = std::ranges::find(choices, name, &Choice::name);
    if (choice == choices.end()) fail(file, "it has an unknown name");
    if (std::ranges::find(choice->values, value) == choice->values.end()) fail(file, "a value is unknown");
  });
  for (std::string_view name : {"-lowerf", "-upperf", "-nfilt", "-transform", "-lifter", "-feat", "-svspec",
                                "-agc", "-cmn", "-varnorm", "-model", "-cmninit"})
    if (!seen.contains(name)) fail(file, "a parameter is missing");
  if (highest - lowest < 1000) fail(file, "a value cannot be right");
  // Three streams of 13: the cepstrum and its two differences.
  if (gaussians[1] != 3 ||
      !std::all_of(gaussians.begin() + 3, gaussians.end(), [](auto n) { return n == 13; }))
    fail(file, "it does not fit the other files");
}

using Words = std::unordered_set<std::string_view>;

// Checks a dictionary: each line is a word and its phones.
Words checkDictionary(const std::filesystem::path& file, std::string_view contents,
                      const AcousticModel& model) {
  const std::unordered_set<std::string_view> phones(model.phones.begin(), model.phones.end());
  Words words;
  forEachLine(file, contents, [&](const std::vector<std::string_view>& parts) {
    if (parts[0].starts_with("##") || parts[0].starts_with(";;")) return;
    if (parts.size() < 2) fail(file, "a word has no pronunciation");
    for (std::size_t i = 1; i < parts.size(); ++i)
      if (!phones.contains(parts[i])) fail(file, "a word has a phone that the model does not know");
    if (!words.insert(parts[0]).second) fail(file, "a word occurs twice");
  });
  return words;
}

void checkFillers(const std::filesystem::path& file, const AcousticModel& model) {
  const std::string contents = readFile(file);
  const Words fillers = checkDictionary(file, contents, model);
  for (std::string_view filler : {"<s>", "</s>", "<sil>"})
    if (!fillers.contains(filler)) fail(file, "a filler is missing");
}

// Returns `count` (at most 57) bits of a packed table. Reads eight bytes from the first bit's byte on.
std::uint64_t bitsAt(std::string_view table, std::uint64_t firstBit, unsigned int count) {
  return at<std::uint64_t>(table, firstBit / 8) >> (firstBit % 8) & ((std::uint64_t{1} << count) - 1);
}

// Checks the n-gram model, a packed trie: single words, pairs, triples, then the words' text.
void checkLanguageModel(const std::filesystem::path& file, const Words& dictionary) {
  const std::string contents = readFile(file);
  Reader reader(file, contents);
  constexpr std::string_view title = "Trie Language Model";
  constexpr std::uint64_t quantizationBytes = std::uint64_t{65536} * 4;
  constexpr unsigned int quantizedBits = 16;
  constexpr std::uint32_t maxEntries = 1U << 30;
  constexpr std::uint64_t slack = 8;  // bytes after each packed table

  reader.require(reader.bytes(title.size()) == title, "its header is unknown");
  const auto order = reader.number<std::uint8_t>();
  reader.require(order == 2 || order == 3, "its order cannot be right");
  std::vector<std::uint64_t> counts;
  counts.reserve(order);
  for (int i = 0; i < order; ++i) counts.push_back(reader.count(1, maxEntries, "its number of entries"));
  reader.require(reader.number<std::uint32_t>() == 1, "its quantization is unknown");

  const auto tables = order == 3 ? 3U : 1U;
  const auto quantized = reader.bytes(tables * quantizationBytes);
  for (std::uint64_t i = 0; i < quantized.size(); i += 4)
    reader.require(!std::isnan(at<float>(quantized, i)), "a value is not a number");

  // Single words: (probability, back-off weight, first pair), plus one entry that marks the end of the pairs.
  const auto singles = reader.bytes((counts[0] + 1) * 12);
  std::uint64_t previous = 0;
  for (std::uint64_t i = 0; i <= counts[0]; ++i) {
    const std::uint64_t next = at<std::uint32_t>(singles, i * 12 + 8);
    reader.require(std::isfinite(at<float>(singles, i * 12)) && std::isfinite(at<float>(singles, i * 12 + 4)),
                   "a value is not a number");
    reader.require(next >= previous && next <= counts[1], "its order is broken");
    previous = next;
  }

  const auto wordBits = static_cast<unsigned int>(std::bit_width(counts[0]));
  const auto packed = [&reader](std::uint64_t entries, unsigned int bits) {
    return reader.bytes(((entries + 1) * bits + 7) / 8 + slack);
  };
  const auto requireWord = [&](std::string_view table, std::uint64_t bit) {
    reader.require(bitsAt(table, bit, wordBits) <= counts[0], "a word is broken");
  };
  if (order == 3) {
    // Pairs: (word, probability, back-off weight, first triple).
    const auto nextBits = static_cast<unsigned int>(std::bit_width(counts[2]));
    const unsigned int pairBits = wordBits + 2 * quantizedBits + nextBits;
    const auto pairs = packed(counts[1], pairBits);
    // The library reads only pairs that belong to a word, and the one after them, which marks the end
    // of the triples.
    const std::uint64_t pairsUsed = previous;
    previous = 0;
    for (std::uint64_t i = 0; i <= pairsUsed; ++i) {
      if (i < pairsUsed) requireWord(pairs, i * pairBits);
      const auto next = bitsAt(pairs, i * pairBits + wordBits + std::uint64_t{2} * quantizedBits, nextBits);
      reader.require(next >= previous && next <= counts[2], "its order is broken");
      previous = next;
    }
  }
  const unsigned int lastBits = wordBits + quantizedBits;
  const auto last = packed(counts.back(), lastBits);
  for (std::uint64_t i = 0; i < counts.back(); ++i) requireWord(last, i * lastBits);

  const auto textLength = reader.number<std::uint32_t>();
  reader.require(textLength == reader.rest().size() && reader.rest().ends_with('\0'),
                 "its words are not complete");
  std::uint64_t words = 0;
  for (auto text = reader.rest(); !text.empty(); ++words) {
    const auto word = text.substr(0, text.find('\0'));
    text.remove_prefix(word.size() + 1);
    // Every word of the model is spoken, so a dictionary that lacks one is incomplete.
    if (!word.starts_with('<') && !dictionary.contains(word))
      fail(file, "its words are not those of the dictionary");
  }
  reader.require(words == counts[0], "its words are not complete");
}

}  // namespace

void checkModel(const SpeechModelFiles& files) {
  const AcousticModel model = checkModelDefinition(files.acoustic("mdef"));
  const Dimensions means = checkGaussians(files.acoustic("means"));
  if (checkGaussians(files.acoustic("variances")) != means)
    fail(files.acoustic("variances"), "it does not fit the means");
  checkTransitionMatrices(files.acoustic("transition_matrices"), model);
  checkMixtureWeights(files.acoustic("sendump"), model, means);
  checkFeatureParameters(files.acoustic("feat.params"), means);
  checkFillers(files.acoustic("noisedict"), model);
  const std::string dictionary = readFile(files.dictionary);
  checkLanguageModel(files.languageModel, checkDictionary(files.dictionary, dictionary, model));
}

}  // namespace palaver
