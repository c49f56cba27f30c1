#include "core/HelperCommand.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/core/DecodedLine.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Optional;

std::string failureOf(std::string_view line) {
  return DecodedLine(line).failure();
}

std::string pingWith(std::string_view members) {
  return std::string(R"({"type":"ping",)").append(members) + "}";
}

std::string repeated(std::string_view text, std::size_t times) {
  std::string all;
  all.reserve(text.size() * times);
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

std::optional<std::int64_t> sequenceOf(std::string_view number) {
  return DecodedLine(pingWith(std::string("\"sequence\":").append(number))).command().sequence;
}

std::optional<double> capturedAtOf(std::string_view number) {
  return DecodedLine(pingWith(std::string("\"capturedAt\":").append(number))).command().capturedAt;
}

TEST(HelperCommandTest, EveryFieldIsDecoded) {
  const DecodedLine line(
      R"({"type":"audio","sessionId":"s1","source":"self","locale":"ja-JP","vocabulary":["甲","b"],)"
      R"("sequence":42,"capturedAt":1700000000123.25,"pcmBase64":"AAA=","suppressed":true,"sentAt":-2.5})");
  ASSERT_EQ(line.failure(), "");
  const auto& command = line.command();
  EXPECT_EQ(command.type, "audio");
  EXPECT_EQ(command.sessionId, "s1");
  EXPECT_EQ(command.source, AudioSource::selfAudio);
  EXPECT_EQ(command.locale, "ja-JP");
  EXPECT_THAT(command.vocabulary, Optional(ElementsAre("甲", "b")));
  EXPECT_EQ(command.sequence, 42);
  EXPECT_EQ(command.capturedAt, 1700000000123.25);
  EXPECT_EQ(command.pcmBase64, "AAA=");
  EXPECT_EQ(command.suppressed, true);
  EXPECT_EQ(command.sentAt, -2.5);
}

TEST(HelperCommandTest, KeyOrderDoesNotMatter) {
  const DecodedLine line(R"({"suppressed":false,"source":"remote","sessionId":"","type":"x"})");
  ASSERT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().type, "x");
  EXPECT_EQ(line.command().sessionId, "");
  EXPECT_EQ(line.command().source, AudioSource::remote);
  EXPECT_EQ(line.command().suppressed, false);
}

void expectAllOptionalFieldsAbsent(const HelperCommand& command) {
  EXPECT_EQ(command.sessionId, std::nullopt);
  EXPECT_EQ(command.source, std::nullopt);
  EXPECT_EQ(command.locale, std::nullopt);
  EXPECT_EQ(command.vocabulary, std::nullopt);
  EXPECT_EQ(command.sequence, std::nullopt);
  EXPECT_EQ(command.capturedAt, std::nullopt);
  EXPECT_EQ(command.pcmBase64, std::nullopt);
  EXPECT_EQ(command.suppressed, std::nullopt);
  EXPECT_EQ(command.sentAt, std::nullopt);
}

TEST(HelperCommandTest, MissingKeyLeavesFieldAbsent) {
  const DecodedLine line(R"({"type":"ping"})");
  ASSERT_EQ(line.failure(), "");
  expectAllOptionalFieldsAbsent(line.command());
}

TEST(HelperCommandTest, NullLeavesFieldAbsent) {
  const DecodedLine line(
      R"({"type":"ping","sessionId":null,"source":null,"locale":null,"vocabulary":null,"sequence":null,)"
      R"("capturedAt":null,"pcmBase64":null,"suppressed":null,"sentAt":null})");
  ASSERT_EQ(line.failure(), "");
  expectAllOptionalFieldsAbsent(line.command());
}

TEST(HelperCommandTest, MissingTypeIsRejected) {
  EXPECT_EQ(failureOf("{}"), "type is missing");
  EXPECT_EQ(failureOf(R"({"sessionId":"s"})"), "type is missing");
  EXPECT_EQ(failureOf(R"({"type":null})"), "type is missing");
  EXPECT_EQ(failureOf(R"({"Type":"ping"})"), "type is missing");
  EXPECT_EQ(failureOf(R"({"type ":"ping"})"), "type is missing");
  EXPECT_EQ(failureOf(R"({"a":{"type":"ping"}})"), "type is missing");
}

TEST(HelperCommandTest, EmptyTypeIsAccepted) {
  const DecodedLine line(R"({"type":""})");
  EXPECT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().type, "");
}

TEST(HelperCommandTest, WrongValueTypeHasItsOwnError) {
  const std::vector<std::pair<std::string, std::string>> values{
      {"string", R"("x")"}, {"number", "1"}, {"boolean", "true"}, {"array", R"(["x"])"}, {"object", "{}"}};
  struct Field {
    std::string name, right, expected;
  };
  const std::vector<Field> fields{
      {"type", "string", "type must be a string"},
      {"sessionId", "string", "sessionId must be a string"},
      {"source", "none", R"(source must be "remote" or "self")"},
      {"locale", "string", "locale must be a string"},
      {"vocabulary", "array", "vocabulary must be an array of strings"},
      {"sequence", "number", "sequence must be a whole number of at most 64 bits"},
      {"capturedAt", "number", "capturedAt must be a number"},
      {"pcmBase64", "string", "pcmBase64 must be a string"},
      {"suppressed", "boolean", "suppressed must be true or false"},
      {"sentAt", "number", "sentAt must be a number"}};
  for (const auto& field : fields)
    for (const auto& [valueType, value] : values) {
      SCOPED_TRACE(field.name + ":" + value);
      const std::string member = "\"" + field.name + "\":" + value;
      const auto failure =
          failureOf(field.name == "type" ? "{" + member + "}" : R"({"type":"ping",)" + member + "}");
      EXPECT_EQ(failure, valueType == field.right ? "" : field.expected);
    }
}

TEST(HelperCommandTest, ValuesAreNotCoerced) {
  EXPECT_EQ(failureOf(R"({"type":"x","suppressed":0})"), "suppressed must be true or false");
  EXPECT_EQ(failureOf(R"({"type":"x","suppressed":"true"})"), "suppressed must be true or false");
  EXPECT_EQ(failureOf(R"({"type":"x","sequence":"1"})"),
            "sequence must be a whole number of at most 64 bits");
  EXPECT_EQ(failureOf(R"({"type":"x","sequence":true})"),
            "sequence must be a whole number of at most 64 bits");
}

TEST(HelperCommandTest, UnknownSourceIsRejected) {
  for (const auto* const source : {"mic", "", "Remote", "SELF", "selfAudio", "self ", "remote\\u0000"})
    EXPECT_EQ(failureOf(pingWith(std::string(R"("source":")") + source + "\"")),
              R"(source must be "remote" or "self")")
        << source;
}

TEST(HelperCommandTest, VocabularyHoldsOnlyStrings) {
  for (const auto* const vocabulary :
       {"[1]", "[null]", "[true]", "[\"a\",null]", "[[]]", "[[\"a\"]]", "[{}]", R"([{"type":"a"}])"})
    EXPECT_EQ(failureOf(pingWith(std::string("\"vocabulary\":") + vocabulary)),
              "vocabulary must be an array of strings")
        << vocabulary;
  const DecodedLine none(pingWith("\"vocabulary\":[]"));
  EXPECT_EQ(none.failure(), "");
  EXPECT_THAT(none.command().vocabulary, Optional(IsEmpty()));
  const DecodedLine empty(pingWith(R"("vocabulary":["",""])"));
  EXPECT_THAT(empty.command().vocabulary, Optional(ElementsAre("", "")));
}

TEST(HelperCommandTest, VocabularyOf1MiBIsDecoded) {
  constexpr std::size_t count = 1 << 17;
  std::string vocabulary = "\"vocabulary\":[\"abcde\"";
  for (std::size_t i = 1; i < count; ++i) vocabulary += ",\"abcde\"";
  const DecodedLine line(pingWith(vocabulary + "]"));
  ASSERT_EQ(line.failure(), "");
  ASSERT_EQ(line.command().vocabulary->size(), count);
  EXPECT_EQ(line.command().vocabulary->back(), "abcde");

  const std::string phrase(1 << 20, 'x');
  const DecodedLine one(pingWith("\"vocabulary\":[\"" + phrase + "\"]"));
  EXPECT_THAT(one.command().vocabulary, Optional(ElementsAre(phrase)));
}

TEST(HelperCommandTest, UnknownKeysAreIgnored) {
  for (const auto* const value :
       {"null", "true", "false", "0", "-0", "1.5e-300", "123456789012345678901234567890", "\"text\"", "[]",
        "{}", R"([1,"a",null,[[{}]],{"type":3}])",
        R"({"type":7,"sessionId":[],"vocabulary":{"source":"mic"}})", R"("\ud83d\ude00")",
        "1e-99999999999999999999"}) {
    const DecodedLine line(pingWith(std::string("\"extra\":") + value));
    EXPECT_EQ(line.failure(), "") << value;
    EXPECT_EQ(line.command().type, "ping") << value;
    expectAllOptionalFieldsAbsent(line.command());
  }
}

TEST(HelperCommandTest, KeysInsideUnknownValueAreIgnored) {
  const DecodedLine line(R"({"extra":{"type":"inner","sessionId":"inner"},"type":"outer"})");
  EXPECT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().type, "outer");
  EXPECT_EQ(line.command().sessionId, std::nullopt);
}

TEST(HelperCommandTest, KeysMatchExactly) {
  for (const auto* const key : {"sessionid", "SessionId", "sessionI", "sessionIdd", "session_id", "",
                                " sessionId", "sessionId\\u0000", "\\u0000sessionId"}) {
    const DecodedLine line(pingWith(std::string("\"") + key + "\":5"));
    EXPECT_EQ(line.failure(), "") << key;
  }
}

TEST(HelperCommandTest, KeyMayContainEscapes) {
  const DecodedLine line(R"({"\u0074ype":"ping","sess\u0069onId":"s"})");
  EXPECT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().type, "ping");
  EXPECT_EQ(line.command().sessionId, "s");
}

TEST(HelperCommandTest, FirstOfRepeatedKeyCounts) {
  const DecodedLine line(
      R"({"type":"a","type":"b","sessionId":"1","sessionId":"2","vocabulary":["a"],"vocabulary":["b","c"],)"
      R"("sequence":1,"sequence":2,"capturedAt":1,"capturedAt":2,"suppressed":true,"suppressed":false})");
  ASSERT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().type, "a");
  EXPECT_EQ(line.command().sessionId, "1");
  EXPECT_THAT(line.command().vocabulary, Optional(ElementsAre("a")));
  EXPECT_EQ(line.command().sequence, 1);
  EXPECT_EQ(line.command().capturedAt, 1);
  EXPECT_EQ(line.command().suppressed, true);
}

TEST(HelperCommandTest, FirstNullCounts) {
  const DecodedLine line(R"({"type":"a","sessionId":null,"sessionId":"2"})");
  EXPECT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().sessionId, std::nullopt);
  EXPECT_EQ(failureOf(R"({"type":null,"type":"ping"})"), "type is missing");
}

TEST(HelperCommandTest, LaterRepetitionMayHaveAnyType) {
  const DecodedLine line(R"({"type":"a","type":[1,{"type":2}],"source":"self","source":"mic"})");
  EXPECT_EQ(line.failure(), "");
  EXPECT_EQ(line.command().type, "a");
  EXPECT_EQ(line.command().source, AudioSource::selfAudio);
}

TEST(HelperCommandTest, SequenceIsAnyWholeNumberIn64Bits) {
  EXPECT_EQ(sequenceOf("3"), 3);
  EXPECT_EQ(sequenceOf("3.0"), 3);
  EXPECT_EQ(sequenceOf("3.000000000000000000000000"), 3);
  EXPECT_EQ(sequenceOf("1e3"), 1000);
  EXPECT_EQ(sequenceOf("1E+3"), 1000);
  EXPECT_EQ(sequenceOf("1.5e1"), 15);
  EXPECT_EQ(sequenceOf("1500e-2"), 15);
  EXPECT_EQ(sequenceOf("-1500e-2"), -15);
  EXPECT_EQ(sequenceOf("0"), 0);
  EXPECT_EQ(sequenceOf("-0"), 0);
  EXPECT_EQ(sequenceOf("-0.0"), 0);
  EXPECT_EQ(sequenceOf("0.0e5"), 0);
  EXPECT_EQ(sequenceOf("0e-5"), 0);
  EXPECT_EQ(sequenceOf("0e-99999999999999999999"), 0);
  EXPECT_EQ(sequenceOf("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(sequenceOf("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(sequenceOf("9007199254740993"), 9007199254740993);
}

TEST(HelperCommandTest, SequenceIsExactInAnyNotation) {
  EXPECT_EQ(sequenceOf("9007199254740993.0"), 9007199254740993);
  EXPECT_EQ(sequenceOf("9007199254740993e0"), 9007199254740993);
  EXPECT_EQ(sequenceOf("9.223372036854775807e18"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(sequenceOf("9223372036854775807.0"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(sequenceOf("-9223372036854775808.00"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(sequenceOf("922337203685477580700e-2"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(sequenceOf("0.000" + std::string(50, '0') + "7e54"), 7);
  EXPECT_EQ(sequenceOf("9e18"), 9000000000000000000);
  EXPECT_EQ(sequenceOf("7" + std::string(300, '0') + "e-300"), 7);
}

TEST(HelperCommandTest, FractionalOrOutOfRangeSequenceIsRejected) {
  for (const auto* const number : {"3.5",
                                   "-3.5",
                                   "1e-1",
                                   "0.1",
                                   "15e-1",
                                   "9223372036854775808",
                                   "-9223372036854775809",
                                   "-9223372036854775808.5",
                                   "9223372036854775807.5",
                                   "9.3e18",
                                   "1e19",
                                   "-1e19",
                                   "1e300",
                                   "18446744073709551615",
                                   "4503599627370497.5",
                                   "9007199254740993.25",
                                   "1e-400",
                                   "5e-324",
                                   "1e-99999999999999999999",
                                   "7e-3000000000"})
    EXPECT_EQ(failureOf(pingWith(std::string("\"sequence\":") + number)),
              "sequence must be a whole number of at most 64 bits")
        << number;
}

TEST(HelperCommandTest, TimeMatchesStrtod) {
  for (const auto* const number :
       {"0", "-0", "1700000000000", "1700000000000.123456789012345678", "0.123456789012345678", "1e3", "1E-3",
        "1.7976931348623157e308", "-1.7976931348623157e308", "4.9e-324", "1e-400", "2.2250738585072011e-308",
        "9007199254740993", "123456789012345678901234567890", "0.1e1", "1.0", "100e-2", "8.5e+2",
        "179769313486231570000000000000000000000e270"}) {
    const auto value = capturedAtOf(number);
    ASSERT_TRUE(value) << number;
    EXPECT_EQ(*value, std::strtod(number, nullptr)) << number;
    EXPECT_EQ(std::signbit(*value), number[0] == '-') << number;
  }
}

TEST(HelperCommandTest, RandomTimesMatchStrtod) {
  std::mt19937_64 random(7);
  for (int i = 0; i < 20000; ++i) {
    std::string number = std::to_string(random() % 2000000000000);
    if (random() % 4 != 0) number += "." + std::to_string(random()).substr(0, 1 + random() % 18);
    if (random() % 8 == 0) number += "e" + std::to_string(static_cast<int>(random() % 400) - 300);
    ASSERT_EQ(capturedAtOf(number), std::strtod(number.c_str(), nullptr)) << number;
  }
}

TEST(HelperCommandTest, NumberBeyondDoubleRangeIsRejectedAnywhere) {
  for (const std::string number : {"1e400", "-1e400", "1e309", "1.8e308", "-1.8e308", "9e308", "99e307",
                                   "12345678e308", "1e99999999999999999999"})
    for (const std::string key : {"sentAt", "capturedAt", "extra"})
      EXPECT_THAT(failureOf(pingWith("\"" + key + "\":" + number)), HasSubstr("number is too big"))
          << key << " " << number;
  const std::string digits(400, '9');
  EXPECT_EQ(failureOf(pingWith("\"sentAt\":" + digits)), "a number is too big at byte 24");
  for (const std::string number : {"1.8e308", "1.8E308"})
    EXPECT_EQ(failureOf(pingWith("\"sentAt\":" + number)), "a number is too big");
  EXPECT_THAT(failureOf(pingWith("\"extra\":[[" + digits + "]]")), HasSubstr("number is too big"));
  EXPECT_EQ(failureOf(pingWith("\"sentAt\":" + std::string(308, '9'))), "");
}

TEST(HelperCommandTest, EscapesAreDecoded) {
  const DecodedLine line(R"({"type":"\u0041\b\f\n\r\t\"\\\/\u3042\uD83D\uDE00\u0000z"})");
  ASSERT_EQ(line.failure(), "");
  using namespace std::string_view_literals;
  EXPECT_EQ(line.command().type, "A\b\f\n\r\t\"\\/あ😀\0z"sv);
}

TEST(HelperCommandTest, InvalidEscapesAreRejected) {
  for (const auto* const text : {"\\x41", "\\u12", "\\u12G4", "\\U0041", "\\'", "\\0", "\\ ", "\\u-123"})
    EXPECT_THAT(failureOf(std::string("{\"type\":\"") + text + "\"}"),
                HasSubstr("an escape sequence is invalid at byte "))
        << text;
}

TEST(HelperCommandTest, LoneSurrogateIsRejectedInKeysAndValues) {
  for (const auto* const half : {"\\ud800", "\\udbff", "\\udc00", "\\udfff", "\\ud800\\ud800",
                                 "\\udc00\\ud800", "\\ud800x", "\\ud800\\n", "\\ud800\\u0041"}) {
    for (const std::string& line :
         {std::string("{\"type\":\"") + half + "\"}", std::string("{\"type\":\"a\",\"") + half + "\":1}",
          std::string("{\"type\":\"a\",\"x\":[{\"") + half + "\":1}]}",
          std::string("{\"type\":\"a\",\"x\":[\"") + half + "\"]}",
          std::string("{\"type\":\"a\",\"vocabulary\":[\"") + half + "\"]}"})
      EXPECT_THAT(failureOf(line), HasSubstr("an escape sequence is half of a surrogate pair")) << line;
  }
}

TEST(HelperCommandTest, LoneSurrogateHasOneTextInKeysAndValues) {
  const auto* const text = "an escape sequence is half of a surrogate pair";
  for (const std::string_view line : {R"({"type":"a","\udc00":1})", R"({"type":"\udc00"})"})
    EXPECT_EQ(failureOf(line), text);
  for (const std::string_view line : {R"({"type":"a","\ud800":1})", R"({"type":"\ud800"})"})
    EXPECT_THAT(failureOf(line), testing::MatchesRegex(std::string(text) + " at byte [0-9]+"));
}

TEST(HelperCommandTest, RawControlCharacterIsRejectedAtEveryPosition) {
  // Covers every offset from the parser's vector steps, before and after an escape.
  for (int character = 0; character < 0x20; ++character) {
    const std::string raw(1, static_cast<char>(character));
    for (std::size_t before = 0; before < 48; ++before)
      for (const std::string escape : {"", "\\n"}) {
        const std::string text = escape + std::string(before, 'x');
        ASSERT_EQ(failureOf("{\"type\":\"" + text + raw + "yyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyy\"}"),
                  "a raw control character at byte " + std::to_string(9 + text.size()))
            << character;
        ASSERT_EQ(failureOf("{\"type\":\"a\",\"" + text + raw + "yyyyyyyyyyyyyyyyyyyyyyyyyyyyy\":1}"),
                  "a raw control character at byte " + std::to_string(13 + text.size()))
            << character;
      }
  }
  EXPECT_TRUE(DecodedLine("{\"type\":\"a\x7F\"}").accepted());
}

TEST(HelperCommandTest, OnlyJSONWhiteSpaceIsAccepted) {
  EXPECT_TRUE(DecodedLine(" \t\r{ \t\r\"type\" \t\r: \t\r\"ping\" \t\r, \"x\":[ ] } \t\r").accepted());
  EXPECT_TRUE(DecodedLine("{\"type\":\"ping\"}\r").accepted());
  EXPECT_TRUE(DecodedLine("\n{\n\"type\"\n:\n\"ping\"\n}\n").accepted());
  for (const auto* const space : {"\v", "\f", "\xC2\xA0", "\xC2\x85", "\xE3\x80\x80", "\xE2\x80\xA8"}) {
    EXPECT_FALSE(DecodedLine(std::string(space) + "{\"type\":\"ping\"}").accepted()) << space;
    EXPECT_FALSE(DecodedLine(std::string("{\"type\":\"ping\"}") + space).accepted()) << space;
  }
}

TEST(HelperCommandTest, ByteOrderMarkIsRejected) {
  EXPECT_EQ(failureOf("\xEF\xBB\xBF{\"type\":\"ping\"}"), "a value is malformed at byte 0");
}

TEST(HelperCommandTest, InvalidUTF8IsRejectedAnywhere) {
  using namespace std::string_literals;
  for (const std::string& bytes :
       {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xC3"s, "\xE0\x9F\xBF"s, "\xED\xA0\x80"s,
        "\xED\xBF\xBF"s, "\xE3\x81"s, "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s, "\xF5\x80\x80\x80"s,
        "\xF0\x9F\x98"s, "\xFE"s, "\xFF"s})
    for (const std::string& line :
         {bytes, bytes + "{\"type\":\"a\"}", "{\"type\":\"a\"}" + bytes, "{\"type\":\"" + bytes + "\"}",
          "{\"" + bytes + "\":1,\"type\":\"a\"}", "{\"type\":\"a\",\"x\":[\"" + bytes + "\"]}",
          "{\"type\":\"\\u0041" + bytes + "\"}", "{\"type\":\"a\"" + bytes + "}"})
      EXPECT_EQ(failureOf(line), "the line is not valid UTF-8");
}

TEST(HelperCommandTest, NULByteIsRejectedAnywhere) {
  using namespace std::string_literals;
  const std::string valid = R"({"type":"a","sequence":1,"x":[true]})";
  ASSERT_TRUE(DecodedLine(valid).accepted());
  for (std::size_t at = 0; at <= valid.size(); ++at) {
    std::string line = valid;
    line.insert(at, "\0"s);
    EXPECT_FALSE(DecodedLine(line).accepted()) << at;
  }
  EXPECT_EQ(failureOf("{\"type\":\"a\"}\0"s), "something follows the object at byte 12");
}

TEST(HelperCommandTest, EveryTruncationIsRejected) {
  const std::string valid =
      R"({"type":"audio","sessionId":"\u0041é","source":"self","vocabulary":["a","b"],"sequence":12,)"
      R"("capturedAt":1.5e3,"suppressed":false,"sentAt":null,"x":{"y":[[]]}})";
  ASSERT_TRUE(DecodedLine(valid).accepted());
  for (std::size_t length = 0; length < valid.size(); ++length)
    EXPECT_FALSE(DecodedLine(valid.substr(0, length)).accepted()) << length;
  EXPECT_EQ(failureOf("{\"type\":\"pi"), "the line ends too early at byte 11");
  EXPECT_EQ(failureOf("{"), "the line ends too early at byte 1");
  EXPECT_EQ(failureOf(""), "the line is empty at byte 0");
}

TEST(HelperCommandTest, MalformedJSONIsRejectedWithPosition) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {R"({"type":"a"}x)", "something follows the object at byte 12"},
      {R"({"type":"a"}{"type":"b"})", "something follows the object at byte 12"},
      {R"({"type":"a"},)", "something follows the object at byte 12"},
      {R"({"type":"a"}])", "something follows the object at byte 12"},
      {R"({"type":"a",})", "a key is missing at byte 12"},
      {R"({,"type":"a"})", "a key is missing at byte 1"},
      {R"({"type":"a",,"b":1})", "a key is missing at byte 12"},
      {R"({"type":"a" "b":1})", "a comma or } is missing at byte 12"},
      {R"({"type" "a"})", "a colon is missing at byte 8"},
      {R"({"type":})", "a value is malformed at byte 8"},
      {R"({type:"a"})", "a key is missing at byte 1"},
      {R"({'type':'a'})", "a key is missing at byte 1"},
      {R"({"type":'a'})", "a value is malformed at byte 8"},
      {R"({1:2})", "a key is missing at byte 1"},
      {R"({"type":"a","x":[1,]})", "a value is malformed at byte 19"},
      {R"({"type":"a","x":[1 2]})", "a comma or ] is missing at byte 19"},
      {R"({"type":"a","x":[1}})", "a comma or ] is missing at byte 18"},
      {R"({"type":"a"])", "a comma or } is missing at byte 11"},
      {R"({"type":"a"}//c)", "something follows the object at byte 12"},
      {R"(/**/{"type":"a"})", "a value is malformed at byte 0"},
      {R"({"type":"a"/**/})", "a comma or } is missing at byte 11"},
      {R"({"type":"a"} #c)", "something follows the object at byte 13"},
      {R"({"type":"a","x":1.})", "a number is incomplete at byte 18"},
      {R"({"type":"a","x":1e})", "a number is incomplete at byte 18"},
      {R"({"type":"a","x":1e+})", "a number is incomplete at byte 19"},
  };
  for (const auto& [line, failure] : cases) EXPECT_EQ(failureOf(line), failure) << line;
}

TEST(HelperCommandTest, ValuesOutsideGrammarAreRejected) {
  for (const auto* const value :
       {"NaN",   "nan",   "Infinity", "-Infinity", "inf", "undefined", "True", "TRUE", "Null", "nul",
        "truex", "+1",    "01",       "-01",       "00",  "-",         ".5",   "-.5",  "1.",   "1.e5",
        "1e",    "0x10",  "1_000",    "1,5",       "--1", "1-",        "1f",   "\"",   "'a'",  "(1)",
        "=1",    "1e5.5", "¹",        "１",        "-a",  "--",        "- 1",  "1 e5"})
    for (const std::string key : {"sequence", "sentAt", "extra", "suppressed", "type"})
      EXPECT_FALSE(DecodedLine(R"({"type":"a",")" + key + "\":" + value + "}").accepted())
          << key << ":" << value;
}

TEST(HelperCommandTest, NonObjectIsRejected) {
  for (const auto* const line :
       {"3", "-1.5", "\"type\"", "true", "false", "null", "[]", R"([{"type":"ping"}])"})
    EXPECT_EQ(failureOf(line), "expected an object") << line;
  EXPECT_EQ(failureOf("ping"), "a value is malformed at byte 0");
  for (const auto* const line : {"]", "}", ",", ":"})
    EXPECT_EQ(failureOf(line), "a value is malformed at byte 0") << line;
  EXPECT_EQ(failureOf("   "), "the line is empty at byte 3");
}

TEST(HelperCommandTest, NestingIsAcceptedUpToLimit) {
  // The command itself is the first level.
  const auto nested = [](std::size_t levels, std::string_view open, std::string_view close) {
    return pingWith("\"x\":" + repeated(open, levels - 1) + repeated(close, levels - 1));
  };
  EXPECT_EQ(failureOf(nested(maxNestingDepth, "[", "]")), "");
  EXPECT_EQ(failureOf(nested(maxNestingDepth + 1, "[", "]")), "nested deeper than 512 levels");
  const auto objects = [](std::size_t levels) {
    return pingWith("\"x\":" + repeated("{\"a\":", levels - 2) + "{}" + std::string(levels - 2, '}'));
  };
  EXPECT_EQ(failureOf(objects(maxNestingDepth)), "");
  EXPECT_EQ(failureOf(objects(maxNestingDepth + 1)), "nested deeper than 512 levels");
}

TEST(HelperCommandTest, MillionLevelsDoNotOverflowStack) {
  constexpr std::size_t levels = 1000000;
  EXPECT_EQ(failureOf(pingWith("\"x\":" + std::string(levels, '['))), "nested deeper than 512 levels");
  EXPECT_EQ(failureOf(pingWith("\"x\":" + repeated("{\"a\":", levels))), "nested deeper than 512 levels");
  EXPECT_EQ(failureOf(std::string(levels, '[')), "expected an object");
  EXPECT_EQ(failureOf(std::string(levels, ']')), "a value is malformed at byte 0");
}

TEST(HelperCommandTest, SiblingsAreNotNesting) {
  EXPECT_EQ(failureOf(pingWith("\"x\":[" + repeated("[],{},", 100000) + "1]")), "");
}

TEST(HelperCommandTest, ErrorNeverRepeatsPayload) {
  const std::string secret = "Geheimnis";
  for (const std::string& line :
       {"{\"type\":1,\"sessionId\":\"" + secret + "\"}", "{\"type\":\"a\",\"source\":\"" + secret + "\"}",
        "{\"type\":\"a\",\"" + secret + "\":nope}", "{\"" + secret + "\":1}", secret, "{\"type\":\"" + secret,
        "{\"type\":\"" + secret + "\\q\"}", "{\"type\":\"" + secret + "\"}" + secret,
        "{\"type\":\"a\",\"vocabulary\":[\"" + secret + "\",1]}", "{\"type\":\"" + secret + "\xFF\"}",
        "{\"type\":\"" + secret + "\\ud800\"}", std::string("{\"type\":\"a\",\"sequence\":123454321.5}")}) {
    const DecodedLine decoded(line);
    EXPECT_FALSE(decoded.accepted());
    EXPECT_THAT(decoded.failure(), Not(HasSubstr(secret))) << line;
    EXPECT_THAT(decoded.failure(), Not(HasSubstr("123454321"))) << line;
  }
}

// The first command of a text whose end is unknown, with the padding that the decoder requires. Its texts do
// not outlive the call.
std::optional<PlainCommand> plainCommandOf(std::string text) {
  const std::size_t length = text.size();
  text.append(decodingPadding, '"');
  return decodePlainCommand(text.data(), length);
}

TEST(HelperCommandTest, PlainCommandEndsAtLineFeedWhateverFollows) {
  const std::string line = R"({"type":"ping","sentAt":2})";
  for (const auto* const blanks : {"", " ", "\t \r"})
    for (const auto* const rest : {"", "{\"type\":", "\n\n", "}\x80"}) {
      const auto plain = plainCommandOf(line + blanks + "\n" + rest);
      ASSERT_TRUE(plain.has_value()) << blanks << rest;
      EXPECT_EQ(plain->length, line.size() + std::strlen(blanks)) << rest;
      EXPECT_EQ(plain->command.sentAt, 2.0);
    }
}

TEST(HelperCommandTest, PlainCommandDoesNotCrossLineFeed) {
  const std::string line = R"({"type":"ping","sentAt":2,"extra":["a", "b"],"more":null})";
  ASSERT_TRUE(plainCommandOf(line + "\n").has_value());
  for (std::size_t at = 0; at < line.size(); ++at)
    EXPECT_FALSE(plainCommandOf(line.substr(0, at) + "\n" + line.substr(at) + "\n").has_value()) << at;
}

TEST(HelperCommandTest, PlainCommandNeedsItsWholeText) {
  const std::string line = R"({"type":"ping","sentAt":2})";
  for (std::size_t length = 0; length < line.size(); ++length)
    EXPECT_FALSE(plainCommandOf(line.substr(0, length)).has_value()) << length;
}

TEST(HelperCommandTest, CommandThatIsNotPlainTextIsLeftToFullDecoder) {
  for (const auto* const text : {"a\\n", "\xE3\x81\x82", "a\x1F"})
    EXPECT_FALSE(plainCommandOf(R"({"type":")" + std::string(text) + "\"}\n").has_value()) << text;
}

TEST(HelperCommandTest, EveryKindOfPlainValueIsDecodedInOnePass) {
  std::string text =
      R"({"x":true,"type":"audio","sessionId":"s","source":"self","locale":"","vocabulary":["a", "b"],)"
      R"("sequence":-9876543210,"capturedAt":0.25,"pcmBase64":"AAAA","suppressed":false,"sentAt":null,)"
      R"("y":[],"z":["c"],"null":null,"0":-0.0})"
      "\n";
  const std::size_t length = text.size();
  text.append(decodingPadding, '"');
  const auto plain = decodePlainCommand(text.data(), length);
  ASSERT_TRUE(plain.has_value());
  const auto& command = plain->command;
  EXPECT_EQ(command.type, "audio");
  EXPECT_EQ(command.sessionId, "s");
  EXPECT_EQ(command.source, AudioSource::selfAudio);
  EXPECT_EQ(command.locale, "");
  ASSERT_TRUE(command.vocabulary.has_value());
  EXPECT_THAT(*command.vocabulary, ElementsAre("a", "b"));
  EXPECT_EQ(command.sequence, -9876543210);
  EXPECT_EQ(command.capturedAt, 0.25);
  EXPECT_EQ(command.pcmBase64, "AAAA");
  EXPECT_EQ(command.suppressed, false);
  EXPECT_EQ(command.sentAt, std::nullopt);
}

TEST(HelperCommandTest, BlanksAreAllowedBetweenAllPartsOfPlainCommand) {
  const std::vector<std::string> parts{"{",     "\"type\"", ":",     "\"a\"", ",", "\"vocabulary\"", ":", "[",
                                       "\"b\"", ",",        "\"c\"", "]",     ",", "\"sequence\"",   ":", "7",
                                       "}"};
  std::string line;
  for (const auto& part : parts) line.append(" \t\r").append(part);
  line += " \t\r";
  const auto plain = plainCommandOf(line + "\n");
  ASSERT_TRUE(plain.has_value());
  EXPECT_EQ(plain->length, line.size());
  EXPECT_EQ(plain->command.sequence, 7);
  EXPECT_EQ(plain->command.vocabulary->size(), 2U);
}

TEST(HelperCommandTest, NumberOfManyDigitsOrWithExponentIsLeftToFullDecoder) {
  const auto isPlain = [](const std::string& number) {
    return plainCommandOf(R"({"type":"ping","sentAt":)" + number + "}\n").has_value();
  };
  EXPECT_TRUE(isPlain(std::string(32, '1')));
  EXPECT_FALSE(isPlain(std::string(33, '1')));
  EXPECT_TRUE(isPlain("-0." + std::string(29, '1')));
  EXPECT_FALSE(isPlain("-0." + std::string(30, '1')));
  for (const auto* const number : {"1e3", "1E3", "0.5e-3", "0e400"}) EXPECT_FALSE(isPlain(number)) << number;
}

TEST(HelperCommandTest, NestedValueIsLeftToFullDecoder) {
  for (const auto* const value : {"{}", "[1]", "[[]]", "[null]", "[\"a\",{}]"})
    EXPECT_FALSE(plainCommandOf(R"({"type":"ping","x":)" + std::string(value) + "}\n").has_value()) << value;
}

TEST(HelperCommandTest, WhatIsNoJSONIsNotPlain) {
  for (const auto* const value : {"01",     "-01",           "-",   ".5",   "1.",   "1.-", "+1",  "1x",
                                  "tru",    "truex",         "nul", "fals", "True", "[",   "[,]", "[\"a\",]",
                                  "[\"a\"", "[\"a\" \"b\"]", "\"a", "",     ","})
    EXPECT_FALSE(plainCommandOf(R"({"type":"ping","x":)" + std::string(value) + "}\n").has_value()) << value;
  for (const auto* const line : {R"({"type":"ping",})", R"({,"type":"ping"})", R"({"type" "ping"})",
                                 R"({"type":"ping" "x":1})", R"({"type":"ping")", R"("type":"ping"})",
                                 R"({type:"ping"})", R"({"type":"ping","sentAt":[})", "{}", "{\"x\":1}", ""})
    EXPECT_FALSE(plainCommandOf(std::string(line) + "\n").has_value()) << line;
}

TEST(HelperCommandTest, ValueOfWrongTypeIsNotPlain) {
  for (const auto* const members :
       {R"("sentAt":["a"])", R"("sentAt":true)", R"("sequence":1.5)", R"("source":"me")",
        R"("suppressed":null,"locale":false)", R"("vocabulary":"a")", R"("vocabulary":[1])"})
    EXPECT_FALSE(plainCommandOf(R"({"type":"ping",)" + std::string(members) + "}\n").has_value()) << members;
}

TEST(HelperCommandTest, TextsAreViewsIntoLine) {
  const DecodedLine line(
      R"({"type":"a\n","sessionId":"s","locale":"","pcmBase64":"AAAA","vocabulary":["","\u3042","long enough text"]})");
  ASSERT_EQ(line.failure(), "");
  const auto& command = line.command();
  EXPECT_TRUE(line.holds(command.type));
  EXPECT_TRUE(line.holds(*command.sessionId));
  EXPECT_TRUE(line.holds(*command.locale));
  EXPECT_TRUE(line.holds(*command.pcmBase64));
  for (const auto phrase : *command.vocabulary) EXPECT_TRUE(line.holds(phrase));
}

TEST(HelperCommandTest, StringsOfEveryLengthAreDecoded) {
  // Crosses every boundary of the parser's vector steps.
  for (std::size_t length = 0; length < 200; ++length)
    for (const auto* const ending : {"", "\\n", "é", "\\u3042"}) {
      const std::string text(length, 'x');
      const DecodedLine line("{\"type\":\"" + text + ending + "\",\"sessionId\":\"after\"}");
      ASSERT_EQ(line.failure(), "");
      EXPECT_EQ(line.command().type.substr(0, length), text);
      EXPECT_EQ(line.command().sessionId, "after");
    }
}

}  // namespace
}  // namespace palaver
