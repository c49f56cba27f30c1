// Compares the decoder with two parsers that share no code with it.
#include <gmock/gmock.h>
#include <simdjson.h>

#include <random>
#include <string>
#include <vector>

#include "core/HelperCommand.h"
#include "tests/support/ReferenceDecoder.h"
#include "tests/unit/core/DecodedLine.h"
#include "tests/unit/core/plainCommandFault.h"

namespace palaver {
namespace {

enum class Verdict { accepted, refused, unable };

// Integers of more than 64 bits have an error of their own since simdjson 4. Until then they were number
// errors.
template <typename Error>
bool isUnreadableNumber(Error error) {
  if constexpr (requires { Error::BIGINT_ERROR; })
    if (error == Error::BIGINT_ERROR) return true;
  return error == Error::NUMBER_ERROR;
}

// Whether the first parser accepts the line as a JSON object. It has no verdict on integers of more
// than 64 bits.
Verdict structuralVerdict(simdjson::dom::parser& parser, const std::string& line) {
  const auto result = parser.parse(line);
  if (isUnreadableNumber(result.error())) return Verdict::unable;
  if (result.error() == simdjson::CAPACITY) return Verdict::unable;
  return result.error() == simdjson::SUCCESS ? Verdict::accepted : Verdict::refused;
}

// Compares the decoder with both references on one line, with every implementation of its loops that this
// processor runs. Returns whether the program accepted it.
bool compare(simdjson::dom::parser& parser, const std::string& line) {
  const DecodedLine decoded(line);
  for (const VectorKernels* const kernels : supportedVectorKernels()) {
    const DecodedLine again(line, *kernels);
    EXPECT_EQ(again.failure(), decoded.failure()) << kernels->name << " " << line;
    EXPECT_EQ(copyOf(again.command()), copyOf(decoded.command())) << kernels->name << " " << line;
    EXPECT_EQ(plainCommandFault(line + "\n\"},:1", *kernels), "") << kernels->name << " " << line;
  }
  if (!mayDiffer(line, decoded.failure())) {
    const auto reference = decodeReference(line);
    EXPECT_EQ(decoded.accepted(), reference.has_value()) << line << "\n" << decoded.failure();
    if (decoded.accepted() && reference) {
      EXPECT_EQ(copyOf(decoded.command()), *reference) << line;
    }
  }
  const auto structure = structuralVerdict(parser, line);
  if (decoded.accepted()) {
    EXPECT_NE(structure, Verdict::refused) << line;
  }
  // Errors about malformed JSON, unlike those about invalid commands, name a position or the encoding.
  const bool malformed = decoded.failure().find(" at byte ") != std::string::npos ||
                         decoded.failure() == "the line is not valid UTF-8";
  const bool tooBig = decoded.failure().starts_with("a number is too big");
  if (malformed && !tooBig) {
    EXPECT_NE(structure, Verdict::accepted) << line << "\n" << decoded.failure();
  }
  return decoded.accepted();
}

const std::vector<std::string>& corpus() {
  static const std::vector<std::string> lines{
      R"({"type":"ping"})",
      R"({"type":"ping","sentAt":1700000000000.125})",
      R"({"type":"session.start","sessionId":"s-1","locale":"ja-JP","vocabulary":["会議","議事録","Palaver"]})",
      R"({"type":"audio","sessionId":"s","source":"self","sequence":17,"capturedAt":1700000000123.5,)"
      R"("pcmBase64":"AAABAAIAAwA="})",
      R"({"type":"source.suppress","sessionId":"s","source":"remote","suppressed":true})",
      R"({"type":"session.stop","sessionId":"\u3042\ud83d\ude00\n\\\""})",
      R"({"type":"shutdown","extra":{"a":[1,-2.5e+10,true,false,null,{"b":[]}],"":""}})",
      R"({ "type" : "x" , "sequence" : -9223372036854775808 , "sentAt" : 0.1 , "sequence" : "again" })",
      R"({"type":null,"sessionId":null,"vocabulary":[],"sequence":3.0,"capturedAt":-0})",
      R"({"type":"a","vocabulary":["a",["b"]]})",
      R"({"sequence":1e3,"type":"😀あé","x":"\u0000\u001f"})",
      R"([{"type":"ping"}])",
      R"("type")",
      "{}",
      "{\"type\":\"tab\there\"}",
      "{\"type\":\"caf\xC3\"}",
      "\xEF\xBB\xBF{\"type\":\"ping\"}",
      R"({"type":"a","x":0e400})",
      R"({"type":"a","x":1e400})",
      R"({"type":"a","x":123456789012345678901234567890})",
      R"({"type":"a","x":"\ud800"})",
  };
  return lines;
}

TEST(HelperCommandDifferentialTest, CorpusMatchesReferences) {
  simdjson::dom::parser parser;
  int accepted = 0;
  for (const auto& line : corpus()) accepted += compare(parser, line);
  EXPECT_EQ(accepted, 10);
}

// Faulty pieces to insert into a line.
const std::vector<std::string>& pieces() {
  using namespace std::string_literals;
  static const std::vector<std::string> all{"\"",
                                            "{",
                                            "}",
                                            "[",
                                            "]",
                                            ",",
                                            ":",
                                            "\\",
                                            "-",
                                            "+",
                                            ".",
                                            "e",
                                            "E",
                                            "0",
                                            "9",
                                            "1e3",
                                            "3.0",
                                            "-0",
                                            "0.5",
                                            " ",
                                            "\t",
                                            "\r",
                                            "\n",
                                            "\0"s,
                                            "\x01",
                                            "\x7F",
                                            "\x80",
                                            "\xC3",
                                            "\xC3\xA9",
                                            "\xE3\x81\x82",
                                            "\xED\xA0\x80",
                                            "\xF0\x9F\x98\x80",
                                            "\xC2\xA0",
                                            "\xEF\xBB\xBF",
                                            "\\u",
                                            "\\u0041",
                                            "\\ud83d",
                                            "\\ude00",
                                            "\\ud83d\\ude00",
                                            "\\n",
                                            "\\/",
                                            "\\x",
                                            "true",
                                            "false",
                                            "null",
                                            "NaN",
                                            "//",
                                            "/*",
                                            "'",
                                            "\"type\"",
                                            "\"type\":",
                                            "\"sequence\":",
                                            "\"sessionId\":null,",
                                            "\"source\":\"self\",",
                                            "\"vocabulary\":[",
                                            "\"x\":",
                                            ",\"x\":{}",
                                            ",\"x\":[[]]"};
  return all;
}

std::string mutated(std::string line, std::mt19937& random) {
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  for (auto edits = 1 + below(3); edits > 0; --edits) {
    const auto at = below(line.size() + 1);
    const auto count = std::min(line.size() - at, below(5));
    switch (below(6)) {
      case 0:
        line.insert(at, pieces()[below(pieces().size())]);
        break;
      case 1:
        line.replace(at, count, pieces()[below(pieces().size())]);
        break;
      case 2:
        line.erase(at, count);
        break;
      case 3:
        line.insert(at, line.substr(at, count * 4));
        break;
      case 4:
        if (at < line.size()) line[at] = static_cast<char>(below(256));
        break;
      default: {
        const auto& other = corpus()[below(corpus().size())];
        const auto from = below(other.size());
        line.insert(at, other.substr(from, below(20)));
      }
    }
  }
  return line;
}

TEST(HelperCommandDifferentialTest, RandomMutationsMatchReferences) {
  constexpr int rounds = 60000;
  simdjson::dom::parser parser;
  std::mt19937 random(20240607);
  int accepted = 0;
  for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round)
    accepted += compare(parser, mutated(corpus()[random() % corpus().size()], random));
  // The comparison is meaningful only when both outcomes are common.
  EXPECT_GT(accepted, rounds / 20);
  EXPECT_LT(accepted, rounds * 19 / 20);
}

TEST(HelperCommandDifferentialTest, OnlyDocumentedDifferencesExist) {
  using namespace std::string_literals;
  struct Difference {
    std::string line;
    bool accepted;  // by the program
  };
  const std::string zeros(400, '0');
  const std::vector<Difference> differences{
      {"\xEF\xBB\xBF{\"type\":\"a\"}", false},
      {"{\"type\":\"a\"}\0rest"s, false},
      {R"({"type":"a","x":0e400})", false},
      {R"({"type":"a","x":1)" + zeros + "e-400}", false},
      {R"({"type":"a","x":)" + std::string(600, '[') + std::string(600, ']') + "}", false},
  };
  for (const auto& [line, accepted] : differences) {
    const DecodedLine decoded(line);
    EXPECT_EQ(decoded.accepted(), accepted) << line;
    EXPECT_NE(decodeReference(line).has_value(), accepted) << line;
    EXPECT_TRUE(mayDiffer(line, decoded.failure())) << line;
  }
  // The other parser is stricter about integers.
  simdjson::dom::parser parser;
  const std::string bigInteger = R"({"type":"a","x":123456789012345678901234567890})";
  EXPECT_TRUE(DecodedLine(bigInteger).accepted());
  EXPECT_EQ(structuralVerdict(parser, bigInteger), Verdict::unable);
}

}  // namespace
}  // namespace palaver
