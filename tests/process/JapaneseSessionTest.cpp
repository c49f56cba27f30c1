// Tests a session in Japanese: the real helper, its speech worker and the model of tones in a user's folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <span>
#include <string>

#include "core/Base64Encoding.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Tones.h"

namespace palaver {
namespace {

class JapaneseSession : public testing::Test {
 protected:
  JapaneseSession() {
    std::filesystem::create_directories(models_);
    std::filesystem::copy(tonesModel, models_ / "ja-JP");
  }

  HelperProcess::Options options() const {
    return {.environment = {"XDG_DATA_HOME=" + data_.path().string()}};
  }

  // Returns the next event of the type. Fails the test on an error.
  static nlohmann::json await(HelperProcess& helper, const std::string& type) {
    for (;;) {
      auto event = helper.readEvent();
      if (event.is_discarded() || event["type"] == type) return event;
      EXPECT_NE(event["type"], "helper.error") << event;
    }
  }

  static void say(HelperProcess& helper, const std::vector<std::int16_t>& samples) {
    constexpr std::size_t chunk = 1600;  // 100 ms
    for (std::size_t from = 0; from < samples.size(); from += chunk) {
      const auto part = std::span(samples).subspan(from, std::min(chunk, samples.size() - from));
      ASSERT_TRUE(helper.sendLine(
          R"({"type":"audio","sessionId":"a","source":"remote","sequence":1,"capturedAt":)" +
          std::to_string(100000 + from / 16) + R"(,"pcmBase64":")" + encodePCM(part) + "\"}"));
    }
  }

  // Waits for a partial transcript with the text.
  static bool awaitPartial(HelperProcess& helper, const std::string& text) {
    for (;;) {
      const auto event = await(helper, "transcript.partial");
      if (event.is_discarded()) return false;
      if (event["text"] == text) return true;
    }
  }

  const TemporaryFolder data_;
  const std::filesystem::path models_ = data_.path() / "palaver-stt/models";
};

TEST_F(JapaneseSession, TonesAreTranscribedFromStartToFinal) {
  HelperProcess helper(options());
  const auto status = await(helper, "helper.status");
  EXPECT_EQ(status["status"], "ready");
  EXPECT_EQ(status["modelStatus"], "installed");
  ASSERT_TRUE(helper.sendLine(R"({"type":"session.start","sessionId":"a","locale":"ja-JP"})"));
  EXPECT_EQ(await(helper, "session.ready")["available"], true);
  say(helper, makeTones({{lowTone, 300}, {0, 300}, {highTone, 300}, {0, 600}}));
  ASSERT_TRUE(awaitPartial(helper, "低高"));
  ASSERT_TRUE(helper.sendLine(R"({"type":"session.stop","sessionId":"a"})"));
  const auto final = await(helper, "transcript.final");
  EXPECT_EQ(final["text"], "低高");
  EXPECT_GE(final["startedAt"].get<double>(), 100000);
  EXPECT_LE(final["startedAt"].get<double>(), 100200);
}

TEST_F(JapaneseSession, VocabularyReachesModel) {
  HelperProcess helper(options());
  ASSERT_TRUE(
      helper.sendLine(R"({"type":"session.start","sessionId":"a","locale":"ja-JP","vocabulary":["花"]})"));
  await(helper, "session.ready");
  say(helper, makeTones({{skyTone, 300}, {0, 600}}));
  EXPECT_TRUE(awaitPartial(helper, "花"));
}

TEST_F(JapaneseSession, UnusableModelIsOneSentence) {
  std::filesystem::remove(models_ / "ja-JP/tokens.txt");
  HelperProcess helper(options());
  ASSERT_TRUE(helper.sendLine(R"({"type":"session.start","sessionId":"a","locale":"ja-JP"})"));
  await(helper, "session.ready");
  say(helper, makeTones({{lowTone, 300}, {0, 300}}));
  for (;;) {
    const auto event = helper.readEvent();
    ASSERT_FALSE(event.is_discarded());
    if (event["type"] != "helper.error") continue;
    EXPECT_THAT(event["message"].get<std::string>(), testing::HasSubstr("lacks tokens.txt"));
    break;
  }
}

}  // namespace
}  // namespace palaver
