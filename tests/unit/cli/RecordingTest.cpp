#include "cli/Recording.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

namespace palaver::cli {
namespace {

using nlohmann::json;

class RecordingTest : public testing::Test {
 protected:
  RecordingTest() { std::filesystem::remove(path); }
  ~RecordingTest() override { std::filesystem::remove(path); }

  void write(const std::string& text) const { std::ofstream(path) << text; }

  const std::filesystem::path path =
      std::filesystem::path(testing::TempDir()) /
      (std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + ".jsonl");
};

TEST_F(RecordingTest, EveryByteComesBack) {
  const std::string binary("\xff\x00\n\xe3\x81", 5);
  {
    RecordingWriter writer(path, {"/helper", "--health"}, 1000.5, false);
    writer.add(1, Speaker::host, "{\"a\":\"こん\u2028\"}\n{");
    writer.add(2.25, Speaker::helper, binary);
    writer.add(3, Speaker::diagnostics, "words");
    writer.add(4, Speaker::helper, "");
    writer.end(5, "exit status 0");
  }
  const auto read = readConversation(path);
  EXPECT_EQ(read.startedAt, 1000.5);
  EXPECT_FALSE(read.isRedacted);
  EXPECT_EQ(read.command, (std::vector<std::string>{"/helper", "--health"}));
  ASSERT_EQ(read.pieces.size(), 3U);
  EXPECT_EQ(read.pieces[0].bytes, "{\"a\":\"こん\u2028\"}\n{");
  EXPECT_EQ(read.pieces[1].bytes, binary);
  EXPECT_EQ(read.pieces[1].at, 2.25);
  EXPECT_EQ(read.pieces[2].from, Speaker::diagnostics);
  EXPECT_EQ(read.end, "exit status 0");
}

TEST_F(RecordingTest, FileIsForItsOwnerOnlyAndIsNeverOverwritten) {
  RecordingWriter(path, {}, 0, false);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_THROW(RecordingWriter(path, {}, 0, false), std::runtime_error);
}

TEST_F(RecordingTest, PieceIsInTheFileAtOnceAndTornLineIsLeftOut) {
  RecordingWriter writer(path, {}, 0, false);
  writer.add(1, Speaker::host, "whole\n");
  EXPECT_EQ(readConversation(path).pieces.size(), 1U) << "while the writer is open";
  std::ofstream(path, std::ios::app) << R"({"at":2,"from":"host","text":"to)";
  const auto read = readConversation(path);
  EXPECT_EQ(read.pieces.size(), 1U);
  EXPECT_FALSE(read.end);
}

TEST_F(RecordingTest, DamagedFilesAreRefused) {
  EXPECT_THROW(readConversation(path), std::runtime_error) << "missing";
  const std::string head = R"({"recording":1,"startedAt":0,"command":[]})"
                           "\n";
  for (const std::string text : {"", "{}\n", "x\n",
                                 R"({"recording":2})"
                                 "\n"}) {
    write(text);
    EXPECT_THROW(readConversation(path), std::runtime_error) << text;
  }
  for (const std::string line :
       {"x", R"({"at":1,"text":"a"})", R"({"at":1,"from":"nobody","text":"a"})", R"({"at":1,"from":"host"})",
        R"({"at":1,"from":"host","text":5})", R"({"at":1,"from":"host","base64":"?"})",
        R"({"at":1,"from":"host","base64":7})"}) {
    write(head + line + "\n");
    EXPECT_THROW(readConversation(path), std::runtime_error) << line;
  }
}

TEST_F(RecordingTest, RedactedRecordingKeepsNeitherWordsNorAudio) {
  {
    RecordingWriter writer(path, {}, 0, true);
    writer.add(1, Speaker::host, R"({"type":"audio","sessionId":"a","source":"remote","sequ)");
    writer.add(2, Speaker::host, "ence\":3,\"capturedAt\":5,\"pcmBase64\":\"/38AAAAA\"}\nsecret nonsense\n");
    writer.add(3, Speaker::host,
               R"({"type":"session.start","sessionId":"a","vocabulary":["secret"]})"
               "\n");
    writer.add(
        4, Speaker::helper,
        R"({"type":"transcript.final","sessionId":"a","source":"remote","text":"secret","startedAt":7})"
        "\n");
    writer.add(5, Speaker::helper,
               R"({"type":"helper.error","message":"Unsupported recognition locale: secret"})"
               "\n");
    writer.add(6, Speaker::diagnostics, "secret\n");
    writer.add(7, Speaker::host, "secret without an end");
    writer.end(8, "exit status 0");
  }
  std::ifstream file(path);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_EQ(text.find("secret"), std::string::npos) << text;
  EXPECT_EQ(text.find("/38AAAAA"), std::string::npos) << text;
  const auto read = readConversation(path);
  EXPECT_TRUE(read.isRedacted);
  ASSERT_EQ(read.pieces.size(), 6U);
  const auto audio = json::parse(read.pieces[0].bytes);
  EXPECT_EQ(audio["sequence"], 3);
  EXPECT_EQ(audio["pcmBase64"]["frames"], 3);
  EXPECT_NEAR(audio["pcmBase64"]["rms"].get<double>(), 0.577, 0.001);
  EXPECT_EQ(json::parse(read.pieces[1].bytes)["bytes"], 15);
  EXPECT_EQ(json::parse(read.pieces[3].bytes)["text"]["characters"], 6);
  EXPECT_EQ(json::parse(read.pieces[3].bytes)["startedAt"], 7);
  EXPECT_EQ(json::parse(read.pieces[4].bytes)["code"], "locale-unsupported");
}

}  // namespace
}  // namespace palaver::cli
