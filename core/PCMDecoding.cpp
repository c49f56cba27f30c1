#include "core/PCMDecoding.h"

#include <bit>
#include <limits>
#include <memory>

#include "core/Base64.h"

namespace palaver {

static_assert(std::endian::native == std::endian::little, "samples are decoded as they come");

const char* PCMError::what() const noexcept {
  switch (which_) {
    case Case::invalidBase64:
      return "pcmBase64 is not valid Base64";
    case Case::oddByteCount:
      return "PCM16 payload must contain an even number of bytes";
    case Case::formatUnavailable:
      return "Could not create the 16 kHz PCM audio format";
    case Case::bufferUnavailable:
      return "Could not allocate an audio buffer";
  }
  return "";
}

std::optional<AudioFormat> helperAudioFormat(AudioBuffers& audioBuffers) {
  return audioBuffers.makeFormat(CommonFormat::int16, helperSampleRate, 1, false);
}

namespace {

// Creates a buffer for the frames. Throws PCMError.
std::shared_ptr<PCMBuffer> makeEmptyBuffer(AudioBuffers& audioBuffers, std::size_t frames) {
  const auto format = helperAudioFormat(audioBuffers);
  if (!format) throw PCMError(PCMError::Case::formatUnavailable);
  if (frames > std::numeric_limits<std::uint32_t>::max()) throw PCMError(PCMError::Case::bufferUnavailable);
  auto buffer = audioBuffers.makeBuffer(*format, static_cast<std::uint32_t>(frames));
  if (!buffer || !buffer->int16ChannelData()) throw PCMError(PCMError::Case::bufferUnavailable);
  buffer->setFrameLength(static_cast<std::uint32_t>(frames));
  return buffer;
}

void requireBase64(std::string_view text) {
  const auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(base64BufferSize(text.size()));
  if (!decodeBase64(text, bytes.get())) throw PCMError(PCMError::Case::invalidBase64);
}

}  // namespace

// The length of the payload follows from the length of the text, so the samples are decoded into the buffer.
// An error of the text still precedes those of the platform, and is the only one reported.
std::shared_ptr<PCMBuffer> makePCMBuffer(AudioBuffers& audioBuffers, std::string_view base64) {
  if (base64.size() % 4 != 0) throw PCMError(PCMError::Case::invalidBase64);
  const std::size_t byteCount = decodedBase64Size(base64);
  if (byteCount % sizeof(std::int16_t) != 0) {
    requireBase64(base64);
    throw PCMError(PCMError::Case::oddByteCount);
  }
  std::shared_ptr<PCMBuffer> buffer;
  try {
    buffer = makeEmptyBuffer(audioBuffers, byteCount / sizeof(std::int16_t));
  } catch (const PCMError&) {
    requireBase64(base64);
    throw;
  }
  if (!decodeBase64(base64, reinterpret_cast<std::uint8_t*>(buffer->int16ChannelData())))
    throw PCMError(PCMError::Case::invalidBase64);
  return buffer;
}

}  // namespace palaver
