// Tests invalid, huge and truncated input over a real pipe. HelperCommandTest covers
// the kinds of invalid lines.
#include <gmock/gmock.h>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class InputTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(helper_.readEvent()["type"], "helper.status"); }
  // Sends the line. Expects this error, then a pong.
  void expectInvalid(std::string_view line, const std::string& reason) {
    ASSERT_TRUE(helper_.sendLine(line));
    const auto error = helper_.readEvent();
    ASSERT_TRUE(error.is_object());
    EXPECT_EQ(error.size(), 3U);
    EXPECT_EQ(error["type"], "helper.error");
    EXPECT_EQ(error["message"], "Invalid JSON command: " + reason);
    expectAlive();
  }
  void expectAlive() {
    ASSERT_TRUE(helper_.sendLine(R"({"type":"ping","sentAt":)" + std::to_string(++pings_) + "}"));
    EXPECT_EQ(helper_.readEvent()["sentAt"], pings_);
  }
  void TearDown() override {
    helper_.closeInput();
    EXPECT_EQ(helper_.readRest(), "");
    EXPECT_EQ(helper_.wait(), exited(0));
    EXPECT_EQ(helper_.errorText(), "");
  }

  HelperProcess helper_;
  int pings_ = 0;
};

TEST_F(InputTest, LineMayEndInCRLF) {
  ASSERT_TRUE(helper_.send("{\"type\":\"ping\",\"sentAt\":5}\r\n"));
  EXPECT_EQ(helper_.readEvent()["sentAt"], 5);
}

TEST_F(InputTest, CommandMayArriveByteByByte) {
  const std::string line = "{\"type\":\"dance\",\"sessionId\":\"あ\"}\n";
  for (const char byte : line) ASSERT_TRUE(helper_.send({&byte, 1}));
  EXPECT_EQ(helper_.readEvent()["sessionId"], "あ");
}

TEST_F(InputTest, LoneSurrogateIsInvalid) {
  expectInvalid(R"({"type":"\ud800"})", "an escape sequence is half of a surrogate pair at byte 9");
  expectInvalid(R"({"type":"\udc00"})", "an escape sequence is half of a surrogate pair");
}

TEST_F(InputTest, NULByteIsInvalid) {
  using namespace std::string_view_literals;
  expectInvalid("\0"sv, "a value is malformed at byte 0");
  expectInvalid("{\"type\":\"ping\"}\0"sv, "something follows the object at byte 15");
}

TEST_F(InputTest, DeepNestingIsInvalid) {
  for (const std::size_t depth : {513UL, 100000UL, 1000000UL})
    expectInvalid("{\"type\":\"ping\",\"x\":" + std::string(depth, '['), "nested deeper than 512 levels");
  std::string objects = "{\"type\":\"ping\",\"x\":";
  for (int i = 0; i < 1000000; ++i) objects += "{\"a\":";
  expectInvalid(objects, "nested deeper than 512 levels");
}

TEST_F(InputTest, HugeLineIsHandledNormally) {
  const std::string huge(std::size_t{64} << 20, 'x');
  ASSERT_TRUE(helper_.send(R"({"type":"ping","sentAt":1,"extra":")" + huge + "\"}\n"));
  EXPECT_EQ(helper_.readEvent()["sentAt"], 1);
  expectAlive();
  expectInvalid(huge, "a value is malformed at byte 0");
  ASSERT_TRUE(helper_.send(std::string(std::size_t{1} << 20, ' ') + "\n"));
  expectAlive();
}

TEST_F(InputTest, HugeUnknownTypeIsEchoedWhole) {
  const std::string type(std::size_t{1} << 20, 't');
  ASSERT_TRUE(helper_.sendLine("{\"type\":\"" + type + "\"}"));
  EXPECT_TRUE(helper_.readEvent()["message"] == "Unsupported command type: " + type);
}

TEST_F(InputTest, UnknownTypeIsEchoedEscaped) {
  ASSERT_TRUE(helper_.sendLine(R"({"type":"a\n\u0000\"\\/\u2028😀","sessionId":"\r\n"})"));
  const auto line = helper_.readLine();
  ASSERT_TRUE(line);
  const auto error = nlohmann::json::parse(*line);
  using namespace std::string_literals;
  EXPECT_EQ(error["message"], "Unsupported command type: a\n\0\"\\/\xE2\x80\xA8😀"s);
  EXPECT_EQ(error["sessionId"], "\r\n");
}

TEST_F(InputTest, ErrorNeverRepeatsPayload) {
  ASSERT_TRUE(helper_.sendLine(R"({"type":"audio","sessionId":"Geheimnis","pcmBase64":Geheimnis})"));
  const auto line = helper_.readLine();
  ASSERT_TRUE(line);
  EXPECT_THAT(*line, Not(HasSubstr("Geheimnis")));
}

TEST_F(InputTest, LastLineMayLackLineFeed) {
  ASSERT_TRUE(helper_.send(R"({"type":"ping","sentAt":77})"));
  helper_.closeInput();
  EXPECT_EQ(helper_.readEvent()["sentAt"], 77);
}

TEST_F(InputTest, TruncatedLastLineIsReported) {
  ASSERT_TRUE(helper_.send(R"({"type":"pi)"));
  helper_.closeInput();
  EXPECT_EQ(helper_.readEvent()["message"], "Invalid JSON command: the line ends too early at byte 11");
}

}  // namespace
}  // namespace palaver
