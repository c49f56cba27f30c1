#include "core/JSONLineWriter.h"

#include <gmock/gmock.h>

#include <bit>
#include <cmath>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

#include "core/UTF8.h"
#include "core/endProcess.h"
#include "tests/unit/core/Fakes.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

std::string serialized(double number) {
  return serializeEvent(number);
}

TEST(JSONLineWriterTest, EventIsOneLineWithSortedKeysAndNoWhiteSpace) {
  EXPECT_EQ(serializeEvent({{"type", "x"}, {"b", 1}, {"a", true}, {"Z", "z"}, {"aa", false}, {"", "empty"}}),
            R"({"":"empty","Z":"z","a":true,"aa":false,"b":1,"type":"x"})");
}

TEST(JSONLineWriterTest, NestedKeysAreSorted) {
  EXPECT_EQ(serializeEvent({{"type", "x"}, {"endpointing", {{"b", {{"d", 1}, {"c", 2}}}, {"a", 0}}}}),
            R"({"endpointing":{"a":0,"b":{"c":2,"d":1}},"type":"x"})");
  EXPECT_EQ(serializeEvent({{"list", Event::array({{{"b", 1}, {"a", 2}}, 3})}}),
            R"({"list":[{"a":2,"b":1},3]})");
}

TEST(JSONLineWriterTest, InsertionOrderDoesNotMatter) {
  Event first, second;
  const std::vector<std::string> keys{"type", "message", "at", "sessionId", "source", "é", "Ä"};
  for (std::size_t i = 0; i < keys.size(); ++i) {
    first[keys[i]] = keys[i];
    second[keys[keys.size() - 1 - i]] = keys[keys.size() - 1 - i];
  }
  EXPECT_EQ(serializeEvent(first), serializeEvent(second));
}

TEST(JSONLineWriterTest, SlashesAreNotEscaped) {
  EXPECT_EQ(serializeEvent({{"a/b", "/tmp/x.wav"}}), R"({"a/b":"/tmp/x.wav"})");
}

TEST(JSONLineWriterTest, ControlCharactersQuotesAndBackslashesAreEscaped) {
  std::string all;
  for (int character = 0; character < 0x20; ++character) all += static_cast<char>(character);
  all += "\"\\\x7F";
  const auto line = serializeEvent({{"k", all}, {all, 1}});
  for (const char c : line) EXPECT_GE(c, 0x20);
  const auto read = Event::parse(line);
  EXPECT_EQ(read["k"], all);
  EXPECT_EQ(read[all], 1);
}

TEST(JSONLineWriterTest, NonASCIITextIsWrittenAsUTF8) {
  EXPECT_EQ(serializeEvent({{"text", "会議 é 😀 \xE2\x80\xA8"}}), "{\"text\":\"会議 é 😀 \xE2\x80\xA8\"}");
}

TEST(JSONLineWriterTest, ImmediateErrorThatIsNotUTF8IsLeftToError) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  EXPECT_FALSE(writer.tryError("\xFF"));
  EXPECT_THAT(fake.standardOutput.writes(), IsEmpty());
  EXPECT_TRUE(writer.tryError("text"));
}

TEST(JSONLineWriterTest, EmptyContainersAndIntegersAreWritten) {
  EXPECT_EQ(serializeEvent(Event::object()), "{}");
  EXPECT_EQ(serializeEvent({{"a", Event::array()}, {"o", Event::object()}, {"n", nullptr}}),
            R"({"a":[],"n":null,"o":{}})");
  EXPECT_EQ(serializeEvent({{"i", INT64_MIN}, {"u", UINT64_MAX}, {"z", 0}}),
            R"({"i":-9223372036854775808,"u":18446744073709551615,"z":0})");
}

TEST(JSONLineWriterTest, WholeDoubleHasNoFraction) {
  EXPECT_EQ(serialized(0), "0");
  EXPECT_EQ(serialized(-0.0), "-0");
  EXPECT_EQ(serialized(1234), "1234");
  EXPECT_EQ(serialized(1700000000123), "1700000000123");
  EXPECT_EQ(serialized(-1), "-1");
}

TEST(JSONLineWriterTest, FractionIsKept) {
  EXPECT_EQ(serialized(1234.5), "1234.5");
  EXPECT_EQ(serialized(1700000000123.4568), "1700000000123.4568");
  EXPECT_EQ(serialized(0.1), "0.1");
  EXPECT_EQ(serialized(0.1 + 0.2), "0.30000000000000004");
}

// Whether the text is a number as defined in RFC 8259, section 6.
bool isJSONNumber(std::string_view text) {
  std::size_t at = 0;
  const auto digits = [&] {
    const auto start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    return at - start;
  };
  if (at < text.size() && text[at] == '-') ++at;
  const bool leadingZero = at < text.size() && text[at] == '0';
  const auto whole = digits();
  if (whole == 0 || (leadingZero && whole > 1)) return false;
  if (at < text.size() && text[at] == '.') {
    ++at;
    if (digits() == 0) return false;
  }
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    ++at;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
    if (digits() == 0) return false;
  }
  return at == text.size();
}

TEST(JSONLineWriterTest, EveryDoubleRoundTrips) {
  std::mt19937_64 random(11);
  const auto check = [](double number) {
    const auto text = serialized(number);
    ASSERT_TRUE(isJSONNumber(text)) << text;
    const double read = std::strtod(text.c_str(), nullptr);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(read), std::bit_cast<std::uint64_t>(number)) << text;
    ASSERT_LE(text.size(), 24U) << text;
  };
  for (int i = 0; i < 200000; ++i) {
    const auto number = std::bit_cast<double>(random());
    if (std::isfinite(number)) check(number);
    check(1.7e12 + static_cast<double>(random() % 1000000000) / 1000);
  }
  for (const double number :
       {0.0, -0.0, std::numeric_limits<double>::min(), std::numeric_limits<double>::max(),
        std::numeric_limits<double>::lowest(), std::numeric_limits<double>::denorm_min(),
        std::numeric_limits<double>::epsilon(), 1e21, 1e22, 1e23, 9007199254740993.0, 1e5})
    check(number);
}

TEST(JSONLineWriterTest, LineIsTextAndOneLineFeed) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  writer.write({{"type", "x"}});
  writer.write({{"type", "y"}});
  EXPECT_EQ(fake.standardOutput.text(), "{\"type\":\"x\"}\n{\"type\":\"y\"}\n");
  EXPECT_THAT(fake.standardError.writes(), IsEmpty());
}

TEST(JSONLineWriterTest, UnencodableEventIsDroppedWithDiagnostic) {
  const std::vector<Event> events{
      {{"type", "x"}, {"text", "\xFF"}},
      {{"type", "x"}, {"\xC3", 1}},
      {{"type", "x"}, {"list", Event::array({"ok", "\xED\xA0\x80"})}},
      {{"type", "x"}, {"object", {{"a", {{"b", "\xE3\x81"}}}}}},
      {{"type", "x"}, {"number", std::nan("")}},
      {{"type", "x"}, {"number", std::numeric_limits<double>::infinity()}},
      {{"type", "x"}, {"list", Event::array({1, -std::numeric_limits<double>::infinity()})}},
  };
  for (const auto& event : events) {
    FakePlatform fake;
    JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
    writer.write(event);
    EXPECT_THAT(fake.standardOutput.writes(), IsEmpty());
    const auto diagnostic = fake.standardError.text();
    EXPECT_THAT(diagnostic, MatchesRegex("Failed to encode helper event: .+\n"));
    EXPECT_EQ(std::count(diagnostic.begin(), diagnostic.end(), '\n'), 1);
    EXPECT_EQ(fake.standardError.writes().size(), 1U) << "a diagnostic must be one write";
    // The writer stays usable.
    writer.write({{"type", "y"}});
    EXPECT_EQ(fake.standardOutput.text(), "{\"type\":\"y\"}\n");
  }
}

TEST(JSONLineWriterTest, ErrorHasExactKeys) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  writer.error("It / failed");
  writer.error("m", "s");
  writer.error("m", std::nullopt, AudioSource::remote);
  writer.error("", "", AudioSource::selfAudio);
  EXPECT_EQ(fake.standardOutput.text(),
            R"({"at":1700000000123.5,"message":"It / failed","type":"helper.error"})"
            "\n"
            R"({"at":1700000000123.5,"message":"m","sessionId":"s","type":"helper.error"})"
            "\n"
            R"({"at":1700000000123.5,"message":"m","source":"remote","type":"helper.error"})"
            "\n"
            R"({"at":1700000000123.5,"message":"","sessionId":"","source":"self","type":"helper.error"})"
            "\n");
}

// Records the limit that it gets.
class LimitedStream final : public OutputStream {
 public:
  void write(std::string_view) override {}
  void limitStalls(double milliseconds) override { limit = milliseconds; }

  std::optional<double> limit;
};

TEST(JSONLineWriterTest, AtTheEndBothStreamsMayStallForTwoSeconds) {
  const FixedClock clock;
  LimitedStream output, error;
  JSONLineWriter writer(clock, output, error);
  EXPECT_EQ(output.limit, std::nullopt);
  writer.limitStalls();
  EXPECT_EQ(output.limit, 2000);
  EXPECT_EQ(error.limit, 2000);
}

TEST(JSONLineWriterTest, ThreadsWriteWholeLines) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  constexpr int threads = 8, each = 500;
  {
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread)
      writers.emplace_back([&writer, thread] {
        for (int i = 0; i < each; ++i) {
          if (i % 10 == 0) writer.write({{"bad", "\xFF"}});
          if (i % 2 == 0) {
            writer.error("m", std::to_string(thread), AudioSource::remote);
          } else {
            writer.write({{"sessionId", std::to_string(thread)},
                          {"text", std::string(static_cast<std::size_t>(i), 'x')}});
          }
        }
      });
    for (auto& writing : writers) writing.join();
  }
  std::map<std::string, int> lines;
  std::string text = fake.standardOutput.text();
  ASSERT_THAT(text, ::testing::EndsWith("\n"));
  for (std::size_t at = 0; at < text.size();) {
    const auto end = text.find('\n', at);
    const auto event = Event::parse(text.substr(at, end - at), nullptr, false);
    ASSERT_TRUE(event.is_object()) << text.substr(at, end - at);
    ++lines[event["sessionId"]];
    at = end + 1;
  }
  EXPECT_EQ(lines.size(), static_cast<std::size_t>(threads));
  for (const auto& [thread, count] : lines) EXPECT_EQ(count, each) << thread;
}

// Calls tryError() on another thread. It never waits, so the test knows when it has written what it may.
bool anotherThreadWrites(JSONLineWriter& writer) {
  bool written = false;
  std::thread([&] { written = writer.tryError("another thread"); }).join();
  return written;
}

// Lets another thread try to write inside every write of this stream.
class ContendedStream final : public OutputStream {
 public:
  void write(std::string_view bytes) override {
    text += bytes;
    if (writer && !std::exchange(isInside_, true)) {
      overtaken |= anotherThreadWrites(*writer);
      isInside_ = false;
    }
  }

  JSONLineWriter* writer = nullptr;
  std::string text;
  bool overtaken = false;  // the other thread wrote

 private:
  bool isInside_ = false;
};

TEST(JSONLineWriterTest, NoThreadWritesInsideLineOfAnother) {
  const FixedClock clock;
  ContendedStream output, errors;
  JSONLineWriter writer(clock, output, errors);
  output.writer = &writer;
  writer.write({{"type", "x"}});
  EXPECT_FALSE(output.overtaken);
  EXPECT_EQ(output.text, "{\"type\":\"x\"}\n");
  EXPECT_TRUE(writer.tryError("m"));
  EXPECT_FALSE(output.overtaken);
  EXPECT_EQ(std::count(output.text.begin(), output.text.end(), '\n'), 2);
}

TEST(JSONLineWriterTest, LinesWaitWhileHeld) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  std::thread other;
  {
    const auto held = writer.holdLines();
    EXPECT_FALSE(anotherThreadWrites(writer));
    other = std::thread([&writer] { writer.write({{"type", "x"}}); });
    EXPECT_EQ(fake.standardOutput.text(), "");
  }
  other.join();
  EXPECT_EQ(fake.standardOutput.text(), "{\"type\":\"x\"}\n");
  EXPECT_TRUE(anotherThreadWrites(writer));
}

// Another thread may write a line at any time. The process must end between two lines.
class ContendedProcess final : public Process {
 public:
  const std::vector<std::string>& arguments() const override { return arguments_; }
  std::optional<std::string> environmentVariable(std::string_view) const override { return std::nullopt; }
  bool isMacOSAtLeast(OperatingSystemVersion) const override { return false; }

  JSONLineWriter* writer = nullptr;
  bool overtaken = false;  // a thread wrote while the process ended

 private:
  void terminate(int status) override {
    overtaken = anotherThreadWrites(*writer);
    throw Exit{status};
  }

  std::vector<std::string> arguments_;
};

TEST(JSONLineWriterTest, NoThreadWritesWhileProcessEnds) {
  FakePlatform fake;
  JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
  ContendedProcess process;
  process.writer = &writer;
  try {
    endProcess(process, writer, 7);
  } catch (const Exit& exit) {
    EXPECT_EQ(exit.status, 7);
  }
  EXPECT_FALSE(process.overtaken);
  EXPECT_THAT(fake.standardOutput.writes(), IsEmpty());
}

TEST(JSONLineWriterTest, FailedProcessReportsReasonAndExits1) {
  const auto output = [](const std::exception& failure) {
    FakePlatform fake;
    JSONLineWriter writer(fake.clock, fake.standardOutput, fake.standardError);
    try {
      failProcess(fake.process, writer, failure);
    } catch (const Exit& exit) {
      EXPECT_EQ(exit.status, 1);
    }
    return Event::parse(fake.standardOutput.text()).at("message").get<std::string>();
  };
  EXPECT_EQ(output(std::runtime_error("no thread")), "The helper has to end: no thread");
  EXPECT_EQ(output(std::bad_alloc()), "The helper has to end: out of memory");
}

TEST(JSONLineWriterTest, AuthorizationStatusesHaveLabels) {
  const auto label = [](long status) { return authorizationLabel(static_cast<AuthorizationStatus>(status)); };
  EXPECT_EQ(label(0), "not-determined");
  EXPECT_EQ(label(1), "denied");
  EXPECT_EQ(label(2), "restricted");
  EXPECT_EQ(label(3), "authorized");
  for (const long other :
       {-1L, 4L, 5L, 100L, std::numeric_limits<long>::min(), std::numeric_limits<long>::max()})
    EXPECT_EQ(label(other), "unknown") << other;
}

}  // namespace
}  // namespace palaver
