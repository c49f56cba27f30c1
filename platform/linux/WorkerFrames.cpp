#include "platform/linux/WorkerFrames.h"

#include <algorithm>
#include <cmath>
#include <concepts>
#include <cstring>
#include <string_view>
#include <utility>

namespace palaver {

namespace {

constexpr std::size_t headerBytes = 3 * sizeof(std::uint32_t);
// Room of one read, bytes.
constexpr std::size_t readBytes = std::size_t{64} << 10;
// Most contextual phrases, far more than the recognition contract allows.
constexpr std::uint32_t maxPhrases = 10'000;
// Most frames of one request: years of audio.
constexpr std::uint64_t maxPosition = std::uint64_t{1} << 48;

constexpr std::uint32_t hasResult = 1;
constexpr std::uint32_t resultIsFinal = 2;
constexpr std::uint32_t hasError = 4;

// Returns the most bytes that a payload of this type may have. Throws MalformedFrame for other types.
std::size_t payloadLimit(FrameType type) {
  switch (type) {
    case FrameType::endAudio:
    case FrameType::cancelTask:
    case FrameType::closeChannel:
    case FrameType::ready:
      return 0;
    case FrameType::consumed:
    case FrameType::decoding:
      return sizeof(std::uint64_t);
    case FrameType::audio:
      return sizeof(std::uint64_t) + std::size_t{maxSamplesOfFrame} * sizeof(std::int16_t);
    case FrameType::startTask:
      return maxPhraseBytes + maxPhrases * sizeof(std::uint32_t) + 4 * sizeof(std::uint32_t);
    case FrameType::failed:
    case FrameType::answer:
      return maxAnswerBytes;
  }
  throw MalformedFrame();
}

class PayloadWriter {
 public:
  PayloadWriter(FrameType type, std::uint32_t id) {
    number(std::uint32_t{0});  // the length, filled in at the end
    number(static_cast<std::uint32_t>(type));
    number(id);
  }

  template <typename Number>
  requires(std::integral<Number> || std::floating_point<Number>) void number(Number value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    frame_.append(bytes, sizeof value);
  }
  void text(std::string_view value) {
    number(static_cast<std::uint32_t>(value.size()));
    frame_ += value;
  }
  void error(const PlatformError& value) {
    text(value.domain());
    number(static_cast<std::int64_t>(value.code()));
    text(value.localizedDescription());
  }
  std::size_t payloadBytes() const { return frame_.size() - headerBytes; }
  std::string finish() {
    const auto length = static_cast<std::uint32_t>(payloadBytes());
    std::memcpy(frame_.data(), &length, sizeof length);
    return std::move(frame_);
  }

 private:
  std::string frame_;
};

class PayloadReader {
 public:
  explicit PayloadReader(std::span<const std::byte> payload) : rest_(payload) {}

  template <typename Number>
  Number number() {
    Number value{};
    const auto bytes = take(sizeof value);
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
  std::string text() {
    const auto bytes = take(number<std::uint32_t>());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  // Reads seconds within a request.
  double seconds() {
    const auto value = number<double>();
    if (!std::isfinite(value) || value < 0 || value > static_cast<double>(maxPosition))
      throw MalformedFrame();
    return value;
  }
  PlatformError error() {
    auto domain = text();
    const auto code = number<std::int64_t>();
    return {std::move(domain), static_cast<long>(code), text()};
  }
  std::span<const std::byte> rest() { return std::exchange(rest_, {}); }
  // Throws unless everything has been read.
  void finish() const {
    if (!rest_.empty()) throw MalformedFrame();
  }

 private:
  std::span<const std::byte> take(std::size_t count) {
    if (count > rest_.size()) throw MalformedFrame();
    const auto taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }

  std::span<const std::byte> rest_;
};

std::string encodeFrameCount(FrameType type, std::uint32_t task, std::uint64_t frames) {
  PayloadWriter payload(type, task);
  payload.number(frames);
  return payload.finish();
}

std::uint64_t decodeFrameCount(std::span<const std::byte> bytes, std::uint64_t limit) {
  PayloadReader payload(bytes);
  const auto frames = payload.number<std::uint64_t>();
  payload.finish();
  if (frames > limit) throw MalformedFrame();
  return frames;
}

}  // namespace

std::span<std::byte> FrameDecoder::prepare() {
  if (begin_ > 0) {
    std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(begin_),
              bytes_.begin() + static_cast<std::ptrdiff_t>(end_), bytes_.begin());
    end_ -= std::exchange(begin_, 0);
  }
  if (end_ < readBytes && bytes_.size() > 2 * readBytes) {
    bytes_.resize(2 * readBytes);
    bytes_.shrink_to_fit();  // after a long frame
  }
  if (bytes_.size() < end_ + readBytes) bytes_.resize(std::max(end_ + readBytes, end_ * 2));
  return std::span(bytes_).subspan(end_);
}

std::optional<Frame> FrameDecoder::next() {
  if (end_ - begin_ < headerBytes) return std::nullopt;
  PayloadReader header{std::span(bytes_).subspan(begin_, headerBytes)};
  const auto length = header.number<std::uint32_t>();
  const auto type = static_cast<FrameType>(header.number<std::uint32_t>());
  const auto id = header.number<std::uint32_t>();
  if (length > payloadLimit(type)) throw MalformedFrame();
  if (end_ - begin_ - headerBytes < length) return std::nullopt;
  const Frame frame{type, id, std::span(bytes_).subspan(begin_ + headerBytes, length)};
  begin_ += headerBytes + length;
  return frame;
}

std::string encodeFrame(FrameType type, std::uint32_t id) {
  return PayloadWriter(type, id).finish();
}

std::string encodeStart(std::uint32_t task, std::uint32_t channel, const RecognitionOptions& options) {
  std::vector<std::string_view> phrases;
  std::size_t bytes = 0;
  for (const auto& phrase : options.contextualStrings) {
    if (bytes + phrase.size() > maxPhraseBytes || phrases.size() == maxPhrases) continue;
    bytes += phrase.size();
    phrases.emplace_back(phrase);
  }
  PayloadWriter payload(FrameType::startTask, task);
  payload.number(channel);
  payload.number(std::uint32_t{(options.shouldReportPartialResults ? 1U : 0U) |
                               (options.requiresOnDeviceRecognition ? 2U : 0U)});
  payload.number(static_cast<std::uint32_t>(options.taskHint));
  payload.number(static_cast<std::uint32_t>(phrases.size()));
  for (const auto phrase : phrases) payload.text(phrase);
  return payload.finish();
}

AudioPreamble encodeAudioPreamble(std::uint32_t task, std::uint64_t position, std::uint32_t samples) {
  const std::array header{
      static_cast<std::uint32_t>(sizeof position + std::size_t{samples} * sizeof(std::int16_t)),
      static_cast<std::uint32_t>(FrameType::audio), task};
  AudioPreamble preamble;
  std::memcpy(preamble.data(), header.data(), sizeof header);
  std::memcpy(preamble.data() + sizeof header, &position, sizeof position);
  return preamble;
}

std::string encodeFailure(const PlatformError& error) {
  PayloadWriter payload(FrameType::failed, 0);
  payload.error(error);
  return payload.finish();
}

std::string encodeAnswer(std::uint32_t task, const std::optional<RecognitionResult>& result,
                         const std::optional<PlatformError>& error) {
  PayloadWriter payload(FrameType::answer, task);
  payload.number(std::uint32_t{(result ? hasResult : 0U) | (result && result->isFinal ? resultIsFinal : 0U) |
                               (error ? hasError : 0U)});
  if (result) {
    payload.text(result->formattedString);
    payload.number(static_cast<std::uint32_t>(result->segments.size()));
    for (const auto& segment : result->segments) {
      payload.text(segment.substring);
      payload.number(segment.timestamp);
      payload.number(segment.duration);
    }
  }
  if (error) payload.error(*error);
  if (payload.payloadBytes() > maxAnswerBytes)
    return encodeAnswer(task, std::nullopt,
                        PlatformError("SpeechWorker", 0, "The text of the recognition is too long"));
  return payload.finish();
}

std::string encodeConsumed(std::uint32_t task, std::uint64_t frames) {
  return encodeFrameCount(FrameType::consumed, task, frames);
}

std::string encodeDecoding(std::uint64_t frames) {
  return encodeFrameCount(FrameType::decoding, 0, std::min(frames, maxDecodedFrames));
}

StartFrame decodeStart(std::span<const std::byte> bytes) {
  PayloadReader payload(bytes);
  StartFrame frame{};
  frame.channel = payload.number<std::uint32_t>();
  const auto flags = payload.number<std::uint32_t>();
  frame.options.shouldReportPartialResults = (flags & 1U) != 0;
  frame.options.requiresOnDeviceRecognition = (flags & 2U) != 0;
  frame.options.taskHint = static_cast<TaskHint>(payload.number<std::uint32_t>());
  const auto count = payload.number<std::uint32_t>();
  if (count > maxPhrases) throw MalformedFrame();
  for (std::uint32_t i = 0; i < count; ++i) frame.options.contextualStrings.push_back(payload.text());
  payload.finish();
  return frame;
}

AudioFrame decodeAudio(std::span<const std::byte> bytes) {
  PayloadReader payload(bytes);
  AudioFrame frame{};
  frame.position = payload.number<std::uint64_t>();
  frame.samples = payload.rest();
  if (frame.position > maxPosition || frame.samples.size() % sizeof(std::int16_t) != 0)
    throw MalformedFrame();
  return frame;
}

PlatformError decodeFailure(std::span<const std::byte> bytes) {
  PayloadReader payload(bytes);
  auto error = payload.error();
  payload.finish();
  return error;
}

AnswerFrame decodeAnswer(std::span<const std::byte> bytes) {
  PayloadReader payload(bytes);
  AnswerFrame answer;
  const auto flags = payload.number<std::uint32_t>();
  if (flags == 0 || flags > (hasResult | resultIsFinal | hasError)) throw MalformedFrame();
  if ((flags & hasResult) != 0) {
    auto& result = answer.result.emplace();
    result.isFinal = (flags & resultIsFinal) != 0;
    result.formattedString = payload.text();
    const auto count = payload.number<std::uint32_t>();
    for (std::uint32_t i = 0; i < count; ++i) {  // ends with the payload at the latest
      auto& segment = result.segments.emplace_back();
      segment.substring = payload.text();
      segment.timestamp = payload.seconds();
      segment.duration = payload.seconds();
    }
  } else if ((flags & resultIsFinal) != 0) {
    throw MalformedFrame();
  }
  if ((flags & hasError) != 0) answer.error = payload.error();
  payload.finish();
  return answer;
}

std::uint64_t decodeConsumed(std::span<const std::byte> bytes) {
  return decodeFrameCount(bytes, maxPosition);
}

std::uint64_t decodeDecoding(std::span<const std::byte> bytes) {
  return decodeFrameCount(bytes, maxDecodedFrames);
}

}  // namespace palaver
