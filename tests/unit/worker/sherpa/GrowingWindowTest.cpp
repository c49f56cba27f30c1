#include "worker/sherpa/GrowingWindow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/Tones.h"

namespace palaver {
namespace {

constexpr std::int64_t ms = 16;

// Plays a speaker whose word number n, "wn", is said from second n to n + 0.8, and a model that answers at
// once.
class GrowingWindowTest : public testing::Test {
 protected:
  void speak(int milliseconds) {
    for (int i = 0; i < milliseconds; i += 100) window.append(makeTones({{300, 100}}));
  }
  void pause(int milliseconds) {
    for (int i = 0; i < milliseconds; i += 100) window.append(makeTones({{0, 100}}));
  }

  // Returns the words of a text, one a second from the start of the decoding.
  static std::vector<SpokenWord> said(const std::string& text, std::int64_t from = 0) {
    std::vector<SpokenWord> words;
    std::istringstream stream(text);
    for (std::string word; stream >> word; from += speechSampleRate)
      words.push_back({word, false, from, from + 800 * ms});
    return words;
  }

  // Answers the decoding that is due. Fails the test when none is.
  GrowingWindow::Decoding answer(const std::string& text, int cost = 0) {
    const auto decoding = window.next();
    EXPECT_TRUE(decoding);
    if (!decoding) return {};
    window.decoded(*decoding, {said(text, decoding->from), true, cost * ms});
    return *decoding;
  }

  std::string text() const { return joinedText(window.words()); }

  GrowingWindow window;
};

TEST_F(GrowingWindowTest, SilenceIsNeverDecoded) {
  pause(60000);
  EXPECT_FALSE(window.next());
  window.endAudio();
  EXPECT_TRUE(window.isFinished());
  EXPECT_GE(window.neededFrom(), 59000 * ms);
}

TEST_F(GrowingWindowTest, ClickIsNotDecoded) {
  pause(1000);
  window.append(makeTones({{300, 40}, {0, 60}}));
  pause(2000);
  EXPECT_FALSE(window.next());
}

TEST_F(GrowingWindowTest, FirstDecodingIs1500msAfterVoice) {
  pause(3000);
  speak(1400);
  EXPECT_FALSE(window.next());
  speak(100);
  const auto decoding = window.next();
  ASSERT_TRUE(decoding);
  EXPECT_EQ(decoding->from, 2700 * ms);  // with 300 ms before the voice
  EXPECT_EQ(decoding->to, 4500 * ms);
}

TEST_F(GrowingWindowTest, ShortUtteranceIsDecodedInItsPause) {
  speak(400);
  pause(300);
  EXPECT_FALSE(window.next());
  pause(100);
  EXPECT_TRUE(window.next());
}

TEST_F(GrowingWindowTest, NextDecodingIs500msLater) {
  speak(1500);
  answer("w0");
  speak(400);
  EXPECT_FALSE(window.next());
  speak(100);
  EXPECT_TRUE(window.next());
}

TEST_F(GrowingWindowTest, NextDecodingWaitsForTwiceTheCost) {
  speak(1500);
  answer("w0", 400);
  speak(700);
  EXPECT_FALSE(window.next());
  speak(100);
  EXPECT_TRUE(window.next());
}

TEST_F(GrowingWindowTest, PauseIsDecodedWithoutWaitingForCost) {
  speak(1500);
  answer("w0", 5000);
  speak(300);
  pause(300);
  EXPECT_FALSE(window.next());
  pause(100);
  EXPECT_TRUE(window.next());
}

TEST_F(GrowingWindowTest, QuietAudioIsDecodedOnce) {
  speak(1500);
  pause(400);
  answer("w0");
  pause(1000);
  EXPECT_FALSE(window.next());
}

TEST_F(GrowingWindowTest, EndAfterDecodedPauseNeedsNoDecoding) {
  speak(1500);
  pause(400);
  answer("w0");
  pause(500);
  window.endAudio();
  EXPECT_FALSE(window.next());
  EXPECT_TRUE(window.isFinished());
  EXPECT_EQ(text(), "w0");
}

TEST_F(GrowingWindowTest, EndInSpeechIsDecodedOnceMore) {
  speak(1500);
  answer("w0");
  speak(100);
  window.endAudio();
  EXPECT_FALSE(window.isFinished());
  EXPECT_TRUE(answer("w0 w1").isLast);
  EXPECT_TRUE(window.isFinished());
  EXPECT_EQ(text(), "w0 w1");
}

TEST_F(GrowingWindowTest, AgreedWordsStayAsTheyAre) {
  speak(3000);
  answer("go forward tin");
  speak(500);
  answer("go forward ten");
  speak(500);
  answer("no forward ten meters");
  EXPECT_EQ(text(), "go forward ten meters");
}

TEST_F(GrowingWindowTest, NewestWordIsNotAgreedOn) {
  speak(3000);
  answer("go for");
  speak(500);
  answer("go for");
  speak(500);
  answer("go forward");
  EXPECT_EQ(text(), "go forward");
}

TEST_F(GrowingWindowTest, ShortAudioAgreesWithNothing) {
  speak(2000);
  answer("how do you");
  speak(500);
  answer("how do you");
  speak(500);
  answer("had he married");
  EXPECT_EQ(text(), "had he married");
}

TEST_F(GrowingWindowTest, AgreementIgnoresCaseAndPunctuationAndTakesNewestForm) {
  speak(3000);
  answer("Go forward. ten");
  speak(500);
  answer("go forward ten meters");
  speak(500);
  answer("stop");
  EXPECT_EQ(text(), "go forward");
}

TEST_F(GrowingWindowTest, WordInsertedBeforeAgreedOnesDoesNotRepeatThem) {
  speak(4000);
  answer("a b c d");
  speak(500);
  answer("a b c d");
  speak(500);
  answer("um a b c d e");
  EXPECT_EQ(text(), "a b c d e");
}

TEST_F(GrowingWindowTest, AgreedAudioBeyond10sIsCommitted) {
  speak(9500);
  answer("a b c d e f g h i");
  EXPECT_EQ(window.neededFrom(), 0);
  speak(1500);
  answer("a b c d e f g h i j");
  EXPECT_GE(window.neededFrom(), 5000 * ms);
  EXPECT_EQ(text(), "a b c d e f g h i j");
  speak(1000);
  const auto decoding = window.next();
  ASSERT_TRUE(decoding);
  EXPECT_GE(decoding->from, 5000 * ms);
}

TEST_F(GrowingWindowTest, NoDecodingIsLongerThan28s) {
  for (int i = 0; i < 600; ++i) {
    speak(200);
    if (const auto decoding = window.next()) {
      EXPECT_LE(decoding->to - decoding->from, GrowingWindow::longestLength);
      window.decoded(*decoding, {{}, false, 100 * ms});
    }
  }
  window.endAudio();
  for (int i = 0; i < 10 && !window.isFinished(); ++i) answer("w");
  EXPECT_TRUE(window.isFinished());
}

TEST_F(GrowingWindowTest, BacklogIsDecodedInPartsWithoutLoss) {
  for (int i = 0; i < 9; ++i) {
    speak(9000);
    pause(1000);
  }
  window.endAudio();
  std::int64_t reached = 0;
  for (int i = 0; i < 20 && !window.isFinished(); ++i) {
    const auto decoding = answer("w" + std::to_string(i));
    // What lies between two parts is quiet at most.
    EXPECT_LE(decoding.from, reached + 1000 * ms);
    EXPECT_LE(decoding.to - decoding.from, GrowingWindow::longestLength);
    reached = decoding.to;
  }
  EXPECT_TRUE(window.isFinished());
  EXPECT_GE(reached, 89000 * ms);
  EXPECT_THAT(text(), testing::StartsWith("w0 w1 w2"));
}

TEST_F(GrowingWindowTest, WindowWithoutTimesIsSettledInPause) {
  speak(8000);
  pause(300);
  speak(8000);
  GrowingWindow::Decoding decoding;
  for (int i = 0; i < 5 && !decoding.isSettling; ++i) {
    const auto due = window.next();
    ASSERT_TRUE(due);
    decoding = *due;
    window.decoded(decoding, {said(decoding.isSettling ? "first part" : "first part second"), false, 0});
    if (!decoding.isSettling) speak(500);
  }
  EXPECT_TRUE(decoding.isSettling);
  EXPECT_NEAR(static_cast<double>(decoding.to), 8150 * ms, 30 * ms);
  EXPECT_EQ(window.neededFrom(), decoding.to);
  EXPECT_THAT(text(), testing::StartsWith("first part"));
}

TEST_F(GrowingWindowTest, SettlingKeepsAgreedWordsOfRest) {
  speak(8000);
  pause(300);
  speak(5000);
  const auto first = window.next();
  ASSERT_TRUE(first);
  window.decoded(*first, {said("a b c d e"), false, 0});
  speak(1000);
  const auto second = window.next();
  ASSERT_TRUE(second);
  window.decoded(*second, {said("a b c d e f"), false, 0});
  speak(1500);
  const auto third = window.next();
  ASSERT_TRUE(third && third->isSettling);
  window.decoded(*third, {said("a b x"), false, 0});
  EXPECT_EQ(text(), "a b c d e f");
  speak(500);
  const auto fourth = window.next();
  ASSERT_TRUE(fourth);
  EXPECT_EQ(fourth->from, third->to);
  window.decoded(*fourth, {said("d e f g"), false, 0});
  EXPECT_EQ(text(), "a b c d e f g");
}

TEST_F(GrowingWindowTest, LongPauseCommitsAllWords) {
  speak(2000);
  pause(400);
  answer("a b");
  pause(2000);
  EXPECT_GE(window.neededFrom(), 4000 * ms);
  speak(1500);
  EXPECT_GE(answer("c").from, 4000 * ms);
  EXPECT_EQ(text(), "a b c");
}

TEST_F(GrowingWindowTest, WordOverSilenceIsInvented) {
  speak(1000);
  pause(400);
  const auto decoding = window.next();
  ASSERT_TRUE(decoding);
  window.decoded(*decoding,
                 {{{"yes", false, 0, 800 * ms}, {"Thanks.", false, 5000 * ms, 5500 * ms}}, true, 0});
  EXPECT_EQ(text(), "yes");
}

TEST_F(GrowingWindowTest, BracketedNoiseNeverComesOut) {
  speak(1500);
  answer("[ Silence ]");
  EXPECT_EQ(text(), "");
  speak(500);
  answer("(wind blowing) go");
  EXPECT_EQ(text(), "go");
}

TEST_F(GrowingWindowTest, FirstWordStartsWhereVoiceStarts) {
  pause(1000);
  speak(1500);
  const auto decoding = window.next();
  ASSERT_TRUE(decoding);
  window.decoded(*decoding,
                 {{{"go", false, decoding->from, 1500 * ms}, {"on", false, 1600 * ms, 2000 * ms}}, true, 0});
  ASSERT_EQ(window.words().size(), 2U);
  EXPECT_EQ(window.words()[0].startSample, 1000 * ms);
}

TEST(MatchingLength, FindsPrefixDespiteEdits) {
  const auto words = [](std::initializer_list<const char*> texts) {
    std::vector<SpokenWord> list;
    for (const char* text : texts) list.push_back({text, false, 0, 0});
    return list;
  };
  EXPECT_EQ(matchingLength(words({"a", "b"}), words({"a", "b", "c"})), 2U);
  EXPECT_EQ(matchingLength(words({"a", "b"}), words({"a", "x", "c"})), 2U);
  EXPECT_EQ(matchingLength(words({"a", "b"}), words({"um", "a", "b", "c"})), 3U);
  EXPECT_EQ(matchingLength(words({}), words({"a"})), 0U);
  EXPECT_EQ(matchingLength(words({"a"}), words({})), 0U);
}

}  // namespace
}  // namespace palaver
