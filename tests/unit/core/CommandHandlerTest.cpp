#include "core/CommandHandler.h"

#include <gmock/gmock.h>

#include "core/JSONLineWriter.h"
#include "tests/unit/core/DecodedLine.h"
#include "tests/unit/core/Fakes.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CommandHandlerTest : public ::testing::Test {
 protected:
  // Returns the output of the handler for one line.
  std::string handle(std::string_view line) {
    const DecodedLine decoded(line);
    EXPECT_EQ(decoded.failure(), "") << line;
    const auto before = fake_.standardOutput.text().size();
    handler_.handle(decoded.command());
    return fake_.standardOutput.text().substr(before);
  }

  static std::string errorLine(const std::string& message, const std::string& rest = "") {
    return R"({"at":1700000000123.5,"message":")" + message + "\"" + rest + R"(,"type":"helper.error"})" +
           "\n";
  }

  FakePlatform fake_;
  JSONLineWriter writer_{fake_.clock, fake_.standardOutput, fake_.standardError};
  RecordingBackend backend_;
  CommandHandler handler_{fake_.platform, writer_, backend_};
};

TEST_F(CommandHandlerTest, PongHasTimesOfHostAndHelper) {
  EXPECT_EQ(handle(R"({"type":"ping","sentAt":1234.5})"),
            R"({"helperAt":1700000000123.5,"sentAt":1234.5,"type":"pong"})"
            "\n");
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, PingWithoutTimeEchoes0) {
  const std::string pong = R"({"helperAt":1700000000123.5,"sentAt":0,"type":"pong"})"
                           "\n";
  EXPECT_EQ(handle(R"({"type":"ping"})"), pong);
  EXPECT_EQ(handle(R"({"type":"ping","sentAt":null})"), pong);
}

TEST_F(CommandHandlerTest, PongEchoesTimeUnchanged) {
  for (const std::string sentAt : {"0.1", "1700000000123.4568", "-5", "1e-07", "123456789012"})
    EXPECT_EQ(handle(R"({"type":"ping","sentAt":)" + sentAt + "}"),
              R"({"helperAt":1700000000123.5,"sentAt":)" + sentAt + R"(,"type":"pong"})" + "\n");
}

TEST_F(CommandHandlerTest, PongNamesNoSession) {
  EXPECT_EQ(handle(R"({"type":"ping","sessionId":"s","source":"self"})"),
            R"({"helperAt":1700000000123.5,"sentAt":0,"type":"pong"})"
            "\n");
}

TEST_F(CommandHandlerTest, CommandsReachBackendInOrder) {
  handle(R"({"type":"session.start","sessionId":"s","locale":"en-US","vocabulary":["a","会議",""]})");
  handle(
      R"({"type":"audio","sessionId":"s","source":"remote","sequence":-3,"capturedAt":12.5,"pcmBase64":"AAA="})");
  handle(R"({"type":"source.suppress","sessionId":"s","source":"self","suppressed":true})");
  handle(R"({"type":"source.suppress","sessionId":"s","source":"remote","suppressed":false})");
  handle(R"({"type":"session.stop","sessionId":"s"})");
  EXPECT_THAT(backend_.calls,
              ElementsAre("startSession('s', 'en-US', ['a';'会議';'';])",
                          "appendAudio('s', remote, -3, 12.500000, 'AAA=')", "setSuppressed('s', self, true)",
                          "setSuppressed('s', remote, false)", "stopSession('s')"));
  EXPECT_EQ(fake_.standardOutput.text(), "");
}

TEST_F(CommandHandlerTest, SessionDefaultsToJapaneseAndNoVocabulary) {
  handle(R"({"type":"session.start","sessionId":"s"})");
  handle(R"({"type":"session.start","sessionId":"","locale":null,"vocabulary":null})");
  handle(R"({"type":"session.start","sessionId":"s","locale":"","vocabulary":[]})");
  EXPECT_THAT(backend_.calls, ElementsAre("startSession('s', 'ja-JP', [])", "startSession('', 'ja-JP', [])",
                                          "startSession('s', '', [])"));
}

TEST_F(CommandHandlerTest, AudioReachesBackendUnchanged) {
  handle(
      R"({"type":"audio","sessionId":"s","source":"self","sequence":9223372036854775807,"capturedAt":-0.5,"pcmBase64":"not base64!"})");
  handle(R"({"type":"audio","sessionId":"","source":"self","sequence":0,"capturedAt":0,"pcmBase64":""})");
  EXPECT_THAT(backend_.calls,
              ElementsAre("appendAudio('s', self, 9223372036854775807, -0.500000, 'not base64!')",
                          "appendAudio('', self, 0, 0.000000, '')"));
}

TEST_F(CommandHandlerTest, SessionStartWithoutIdIsRejected) {
  const auto expected = errorLine("session.start requires sessionId");
  EXPECT_EQ(handle(R"({"type":"session.start"})"), expected);
  EXPECT_EQ(handle(R"({"type":"session.start","sessionId":null,"source":"self","locale":"en-US"})"),
            expected);
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, SessionStopWithoutIdIsRejected) {
  const auto expected = errorLine("session.stop requires sessionId");
  EXPECT_EQ(handle(R"({"type":"session.stop"})"), expected);
  EXPECT_EQ(handle(R"({"type":"session.stop","source":"remote"})"), expected);
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, AudioWithMissingFieldHasOneMessageAndNoSession) {
  const std::vector<std::string> members{R"("sessionId":"s")", R"("source":"self")", R"("sequence":1)",
                                         R"("capturedAt":2)", R"("pcmBase64":"AAA=")"};
  for (unsigned present = 0; present + 1 < 1U << members.size(); ++present) {
    std::string line = R"({"type":"audio")";
    for (std::size_t i = 0; i < members.size(); ++i)
      if (present >> i & 1) line += "," + members[i];
    EXPECT_EQ(handle(line + "}"),
              errorLine("audio requires sessionId, source, sequence, capturedAt, and pcmBase64"))
        << line;
  }
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, SuppressWithMissingFieldHasOneMessageAndNoSession) {
  const std::vector<std::string> members{R"("sessionId":"s")", R"("source":"self")", R"("suppressed":false)"};
  for (unsigned present = 0; present + 1 < 1U << members.size(); ++present) {
    std::string line = R"({"type":"source.suppress")";
    for (std::size_t i = 0; i < members.size(); ++i)
      if (present >> i & 1) line += "," + members[i];
    EXPECT_EQ(handle(line + "}"), errorLine("source.suppress requires sessionId, source, and suppressed"))
        << line;
  }
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, UnknownTypeIsReportedWithSessionAndSource) {
  EXPECT_EQ(handle(R"({"type":"dance"})"), errorLine("Unsupported command type: dance"));
  EXPECT_EQ(handle(R"({"type":"dance","sessionId":"s"})"),
            errorLine("Unsupported command type: dance", R"(,"sessionId":"s")"));
  EXPECT_EQ(handle(R"({"type":"dance","source":"remote"})"),
            errorLine("Unsupported command type: dance", R"(,"source":"remote")"));
  EXPECT_EQ(handle(R"({"type":"dance","sessionId":"s","source":"self"})"),
            errorLine("Unsupported command type: dance", R"(,"sessionId":"s","source":"self")"));
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, TypesMatchExactly) {
  for (const std::string type : {"", "Ping", "ping ", " ping", "PING", "session.Start", "session",
                                 "session.start.", "audio ", "shutdown!", "pong", "stop", "ping\\u0000"})
    EXPECT_EQ(handle(R"({"type":")" + type + "\"}"), errorLine("Unsupported command type: " + type)) << type;
  EXPECT_THAT(backend_.calls, IsEmpty());
}

TEST_F(CommandHandlerTest, UnusedFieldsAreIgnored) {
  const std::string all =
      R"(,"sessionId":"s","source":"self","locale":"xx","vocabulary":["v"],"sequence":1,"capturedAt":2,)"
      R"("pcmBase64":"AAA=","suppressed":true,"sentAt":3})";
  handle(R"({"type":"ping")" + all);
  handle(R"({"type":"session.start")" + all);
  handle(R"({"type":"audio")" + all);
  handle(R"({"type":"source.suppress")" + all);
  handle(R"({"type":"session.stop")" + all);
  EXPECT_THAT(backend_.calls,
              ElementsAre("startSession('s', 'xx', ['v';])", "appendAudio('s', self, 1, 2.000000, 'AAA=')",
                          "setSuppressed('s', self, true)", "stopSession('s')"));
  EXPECT_EQ(fake_.standardOutput.text(), R"({"helperAt":1700000000123.5,"sentAt":3,"type":"pong"})"
                                         "\n");
}

TEST_F(CommandHandlerTest, ShutdownStopsBackendThenExits0) {
  for (const auto* const line : {R"({"type":"shutdown"})", R"({"type":"shutdown","sessionId":"s"})"}) {
    backend_.calls.clear();
    try {
      handle(line);
      FAIL() << "still running";
    } catch (const Exit& exit) {
      EXPECT_EQ(exit.status, 0);
    }
    EXPECT_THAT(backend_.calls, ElementsAre("stopAll"));
    EXPECT_EQ(fake_.standardOutput.text(), "");
  }
}

}  // namespace
}  // namespace palaver
