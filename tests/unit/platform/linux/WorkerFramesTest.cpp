#include "platform/linux/WorkerFrames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace palaver {
namespace {

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text));
}

// Gives the decoder the bytes in reads of at most `size` bytes.
void feed(FrameDecoder& decoder, std::string_view bytes, std::size_t size = 4096) {
  while (!bytes.empty()) {
    const auto room = decoder.prepare();
    const auto count = std::min({size, room.size(), bytes.size()});
    std::memcpy(room.data(), bytes.data(), count);
    decoder.received(count);
    bytes.remove_prefix(count);
  }
}

std::string header(std::uint32_t length, std::uint32_t type, std::uint32_t id = 1) {
  std::string bytes(12, '\0');
  std::memcpy(bytes.data(), &length, 4);
  std::memcpy(bytes.data() + 4, &type, 4);
  std::memcpy(bytes.data() + 8, &id, 4);
  return bytes;
}

RecognitionResult someResult() {
  return {.formattedString = "go forward",
          .segments = {{"go", 0.5, 0.25}, {"forward", 0.75, 1}},
          .isFinal = true};
}

TEST(FrameDecoder, FramesSurviveReadsOfAnySize) {
  const std::string bytes = encodeFrame(FrameType::ready) +
                            encodeAnswer(7, someResult(), PlatformError("domain", -3, "text")) +
                            encodeConsumed(9, 123456);
  for (const std::size_t size : {1UL, 2UL, 3UL, 11UL, 12UL, 13UL, 1000UL}) {
    FrameDecoder decoder;
    std::vector<std::pair<FrameType, std::uint32_t>> seen;
    for (std::size_t at = 0; at < bytes.size(); at += size) {
      feed(decoder, std::string_view(bytes).substr(at, size));
      while (const auto frame = decoder.next()) {
        seen.emplace_back(frame->type, frame->id);
        if (frame->type == FrameType::consumed) {
          EXPECT_EQ(decodeConsumed(frame->payload), 123456U);
        }
      }
    }
    EXPECT_EQ(seen, (std::vector<std::pair<FrameType, std::uint32_t>>{
                        {FrameType::ready, 0}, {FrameType::answer, 7}, {FrameType::consumed, 9}}));
  }
}

TEST(FrameDecoder, TruncatedFrameIsAwaited) {
  const auto bytes = encodeConsumed(1, 2);
  FrameDecoder decoder;
  feed(decoder, std::string_view(bytes).substr(0, bytes.size() - 1));
  EXPECT_FALSE(decoder.next());
  feed(decoder, std::string_view(bytes).substr(bytes.size() - 1));
  EXPECT_TRUE(decoder.next());
  EXPECT_FALSE(decoder.next());
}

TEST(WorkerFrames, DecodedAudioIsBounded) {
  const auto decoded = [](std::uint64_t frames) {
    FrameDecoder decoder;
    feed(decoder, encodeDecoding(frames));
    const auto frame = decoder.next();
    EXPECT_TRUE(frame && frame->type == FrameType::decoding && frame->id == 0);
    return decodeDecoding(frame->payload);
  };
  EXPECT_EQ(decoded(123456), 123456U);
  EXPECT_EQ(decoded(maxDecodedFrames), maxDecodedFrames);
  EXPECT_EQ(decoded(maxDecodedFrames + 1), maxDecodedFrames);
  auto bytes = encodeConsumed(0, maxDecodedFrames + 1);
  FrameDecoder decoder;
  feed(decoder, bytes);
  EXPECT_THROW(decodeDecoding(decoder.next()->payload), MalformedFrame);
}

TEST(FrameDecoder, UnknownTypeIsMalformed) {
  for (const std::uint32_t type : {0U, 6U, 15U, 21U, 0xffffffffU}) {
    FrameDecoder decoder;
    feed(decoder, header(0, type));
    EXPECT_THROW(decoder.next(), MalformedFrame) << type;
  }
}

TEST(FrameDecoder, OversizedFrameIsMalformedBeforeItsPayload) {
  const std::pair<FrameType, std::size_t> limits[] = {{FrameType::ready, 0},
                                                      {FrameType::endAudio, 0},
                                                      {FrameType::consumed, 8},
                                                      {FrameType::decoding, 8},
                                                      {FrameType::audio, 8 + 2 * maxSamplesOfFrame},
                                                      {FrameType::answer, maxAnswerBytes}};
  for (const auto& [type, limit] : limits) {
    FrameDecoder decoder;
    feed(decoder, header(static_cast<std::uint32_t>(limit + 1), static_cast<std::uint32_t>(type)));
    EXPECT_THROW(decoder.next(), MalformedFrame);
  }
}

TEST(FrameDecoder, MemoryOfLongFrameIsReleased) {
  RecognitionResult result;
  result.formattedString.assign(8 << 20, 'x');
  FrameDecoder decoder;
  feed(decoder, encodeAnswer(1, result, std::nullopt), 1 << 20);
  ASSERT_TRUE(decoder.next());
  EXPECT_LE(decoder.prepare().size(), 128U << 10);
}

TEST(WorkerFrames, StartKeepsOptions) {
  const RecognitionOptions options{.shouldReportPartialResults = false,
                                   .requiresOnDeviceRecognition = true,
                                   .taskHint = TaskHint::dictation,
                                   .contextualStrings = {"", "東京", "a\nb"}};
  FrameDecoder decoder;
  feed(decoder, encodeStart(5, 3, options));
  const auto frame = decoder.next();
  ASSERT_TRUE(frame && frame->type == FrameType::startTask && frame->id == 5);
  const auto start = decodeStart(frame->payload);
  EXPECT_EQ(start.channel, 3U);
  EXPECT_FALSE(start.options.shouldReportPartialResults);
  EXPECT_TRUE(start.options.requiresOnDeviceRecognition);
  EXPECT_EQ(start.options.taskHint, TaskHint::dictation);
  EXPECT_EQ(start.options.contextualStrings, options.contextualStrings);
}

TEST(WorkerFrames, PhrasesBeyondLimitAreLeftOut) {
  RecognitionOptions options;
  options.contextualStrings = {"first", std::string(maxPhraseBytes, 'x'), "last"};
  FrameDecoder decoder;
  feed(decoder, encodeStart(1, 1, options));
  const auto frame = decoder.next();
  ASSERT_TRUE(frame);
  EXPECT_EQ(decodeStart(frame->payload).options.contextualStrings,
            (std::vector<std::string>{"first", "last"}));
}

TEST(WorkerFrames, AudioKeepsPositionAndSamples) {
  const std::array<std::int16_t, 3> samples{1, -2, 32767};
  const auto preamble = encodeAudioPreamble(4, 99, samples.size());
  std::string bytes(reinterpret_cast<const char*>(preamble.data()), preamble.size());
  bytes.append(reinterpret_cast<const char*>(samples.data()), sizeof samples);
  FrameDecoder decoder;
  feed(decoder, bytes);
  const auto frame = decoder.next();
  ASSERT_TRUE(frame && frame->type == FrameType::audio && frame->id == 4);
  const auto audio = decodeAudio(frame->payload);
  EXPECT_EQ(audio.position, 99U);
  EXPECT_TRUE(std::ranges::equal(audio.samples, std::as_bytes(std::span(samples))));
  EXPECT_THROW(decodeAudio(frame->payload.first(9)), MalformedFrame) << "half a sample";
  EXPECT_THROW(decodeAudio(frame->payload.first(7)), MalformedFrame) << "half a position";
}

TEST(WorkerFrames, AnswerKeepsResultAndError) {
  FrameDecoder decoder;
  feed(decoder, encodeAnswer(1, someResult(), PlatformError("domain", -3, "text")));
  const auto answer = decodeAnswer(decoder.next()->payload);
  ASSERT_TRUE(answer.result && answer.error);
  EXPECT_TRUE(answer.endsTask());
  EXPECT_EQ(answer.result->formattedString, "go forward");
  ASSERT_EQ(answer.result->segments.size(), 2U);
  EXPECT_EQ(answer.result->segments[1].substring, "forward");
  EXPECT_EQ(answer.result->segments[1].timestamp, 0.75);
  EXPECT_EQ(answer.result->segments[1].duration, 1);
  EXPECT_EQ(answer.error->domain(), "domain");
  EXPECT_EQ(answer.error->code(), -3);
  EXPECT_EQ(answer.error->localizedDescription(), "text");
}

TEST(WorkerFrames, EveryCutAnswerIsMalformed) {
  const auto bytes = encodeAnswer(1, someResult(), PlatformError("domain", -3, "text"));
  const auto payload = bytesOf(bytes).subspan(12);
  EXPECT_NO_THROW(decodeAnswer(payload));
  for (std::size_t size = 0; size < payload.size(); ++size)
    EXPECT_THROW(decodeAnswer(payload.first(size)), MalformedFrame) << size;
  const auto longer = bytes + "x";
  EXPECT_THROW(decodeAnswer(bytesOf(longer).subspan(12)), MalformedFrame);
}

TEST(WorkerFrames, ImpossibleTimesAreMalformed) {
  for (const double time :
       {-0.5, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(), 1e300}) {
    auto result = someResult();
    result.segments[0].timestamp = time;
    const auto bytes = encodeAnswer(1, result, std::nullopt);
    EXPECT_THROW(decodeAnswer(bytesOf(bytes).subspan(12)), MalformedFrame) << time;
  }
}

TEST(WorkerFrames, HugeSegmentCountIsMalformed) {
  auto bytes = encodeAnswer(1, RecognitionResult{"x", {}, false}, std::nullopt);
  const std::uint32_t huge = 0xffffffff;
  std::memcpy(bytes.data() + bytes.size() - 4, &huge, 4);
  EXPECT_THROW(decodeAnswer(bytesOf(bytes).subspan(12)), MalformedFrame);
}

TEST(WorkerFrames, AnswerThatIsTooLongBecomesError) {
  RecognitionResult result;
  result.formattedString.assign(maxAnswerBytes, 'x');
  FrameDecoder decoder;
  feed(decoder, encodeAnswer(1, result, std::nullopt));
  const auto answer = decodeAnswer(decoder.next()->payload);
  EXPECT_FALSE(answer.result);
  EXPECT_TRUE(answer.error);
}

}  // namespace
}  // namespace palaver
