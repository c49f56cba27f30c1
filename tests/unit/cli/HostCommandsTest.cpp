#include "cli/HostCommands.h"
#include "core/Base64Encoding.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace palaver::cli {
namespace {

std::string base64(std::string_view text) {
  return encodeBase64({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

TEST(HostCommandsTest, Base64MatchesRFC4648Vectors) {
  EXPECT_EQ(base64(""), "");
  EXPECT_EQ(base64("f"), "Zg==");
  EXPECT_EQ(base64("fo"), "Zm8=");
  EXPECT_EQ(base64("foo"), "Zm9v");
  EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64("\xFB\xEF\xBE\xFF"), "++++/w==");
}

TEST(HostCommandsTest, CommandIsOneLine) {
  const auto line = sessionStart("s\n1", "ja-JP", {"甲", "b\nc"});
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_EQ(nlohmann::json::parse(line), (nlohmann::json{{"type", "session.start"},
                                                         {"sessionId", "s\n1"},
                                                         {"locale", "ja-JP"},
                                                         {"vocabulary", {"甲", "b\nc"}}}));
}

TEST(HostCommandsTest, AudioIsLittleEndian) {
  const std::vector<std::int16_t> frames{1, -2, 0x1234};
  EXPECT_EQ(nlohmann::json::parse(audio("s", AudioSource::selfAudio, 7, 1700000000123.25, frames)),
            (nlohmann::json{{"type", "audio"},
                            {"sessionId", "s"},
                            {"source", "self"},
                            {"sequence", 7},
                            {"capturedAt", 1700000000123.25},
                            {"pcmBase64", base64({"\x01\x00\xFE\xFF\x34\x12", 6})}}));
}

}  // namespace
}  // namespace palaver::cli
