// Decodes arbitrary bytes as frames of a speech worker, in reads of any size, and compares with few reads.
// The first eight bytes choose the sizes. A first byte of 255 puts an answer of 200 kB in front of the input,
// for which the decoder's memory grows and shrinks again. What decodes must encode to the same bytes again.
#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/FuzzInput.h"
#include "platform/linux/WorkerFrames.h"

namespace {

using namespace palaver;

std::string encodedAgain(const Frame& frame) {
  switch (frame.type) {
    case FrameType::startTask: {
      const auto start = decodeStart(frame.payload);
      return encodeStart(frame.id, start.channel, start.options);
    }
    case FrameType::audio: {
      const auto audio = decodeAudio(frame.payload);
      const auto preamble =
          encodeAudioPreamble(frame.id, audio.position, static_cast<std::uint32_t>(audio.samples.size() / 2));
      std::string bytes(reinterpret_cast<const char*>(preamble.data()), preamble.size());
      return bytes.append(reinterpret_cast<const char*>(audio.samples.data()), audio.samples.size());
    }
    case FrameType::failed:
      return encodeFailure(decodeFailure(frame.payload));
    case FrameType::answer: {
      const auto answer = decodeAnswer(frame.payload);
      return encodeAnswer(frame.id, answer.result, answer.error);
    }
    case FrameType::consumed:
      return encodeConsumed(frame.id, decodeConsumed(frame.payload));
    case FrameType::decoding: {
      auto bytes = encodeDecoding(decodeDecoding(frame.payload));
      std::memcpy(bytes.data() + 2 * sizeof frame.id, &frame.id, sizeof frame.id);  // any is accepted
      return bytes;
    }
    default:
      return encodeFrame(frame.type, frame.id);
  }
}

// Returns the frames as text, ended by '!' when the input is malformed.
std::string play(std::string_view input, std::string_view sizes) {
  std::string frames;
  FrameDecoder decoder;
  try {
    for (std::size_t read = 0; !input.empty(); ++read) {
      const auto room = decoder.prepare();
      require(!room.empty(), "there is no room to read into");
      const std::size_t wanted =
          sizes.empty() ? input.size()
                        : std::size_t{1} + static_cast<unsigned char>(sizes[read % sizes.size()]);
      const auto count = std::min({room.size(), input.size(), wanted});
      std::memcpy(room.data(), input.data(), count);
      decoder.received(count);
      input.remove_prefix(count);
      while (const auto frame = decoder.next()) {
        const auto bytes = encodedAgain(*frame);
        const std::string_view payload(reinterpret_cast<const char*>(frame->payload.data()),
                                       frame->payload.size());
        // Unknown flags and the phrases beyond the limit are not kept.
        if (frame->type != FrameType::startTask)
          require(std::string_view(bytes).substr(bytes.size() - payload.size()) == payload,
                  "a frame changes when it is encoded again");
        frames += bytes;
      }
    }
  } catch (const MalformedFrame&) {
    frames += '!';
  }
  return frames;
}

// Returns what precedes the input.
std::string longAnswer(std::uint8_t choice) {
  if (choice != 255) return {};
  return encodeAnswer(1, RecognitionResult{std::string(200'000, 'a'), {}, false}, std::nullopt);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t choices = 8;
  if (size < choices) return 0;
  const auto sizes = text(data, choices);
  const auto input = longAnswer(data[0]).append(text(data + choices, size - choices));
  require(play(input, {}) == play(input, sizes), "the size of reads shows");
  return 0;
}
