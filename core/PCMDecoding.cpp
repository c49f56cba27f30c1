#include "core/PCMDecoding.h"

#include <bit>
#include <cstring>
#include <limits>

#include "core/Base64.h"

namespace palaver {

static_assert(std::endian::native == std::endian::little, "samples are copied as they come");

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

std::shared_ptr<PCMBuffer> makePCMBuffer(AudioBuffers& audioBuffers, std::string_view base64) {
  const auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(base64BufferSize(base64.size()));
  const auto byteCount = decodeBase64(base64, bytes.get());
  if (!byteCount) throw PCMError(PCMError::Case::invalidBase64);
  if (*byteCount % sizeof(std::int16_t) != 0) throw PCMError(PCMError::Case::oddByteCount);

  const auto format = helperAudioFormat(audioBuffers);
  if (!format) throw PCMError(PCMError::Case::formatUnavailable);
  const std::size_t frames = *byteCount / sizeof(std::int16_t);
  if (frames > std::numeric_limits<std::uint32_t>::max()) throw PCMError(PCMError::Case::bufferUnavailable);
  auto buffer = audioBuffers.makeBuffer(*format, static_cast<std::uint32_t>(frames));
  if (!buffer) throw PCMError(PCMError::Case::bufferUnavailable);
  auto* const samples = buffer->int16ChannelData();
  if (!samples) throw PCMError(PCMError::Case::bufferUnavailable);
  buffer->setFrameLength(static_cast<std::uint32_t>(frames));
  std::memcpy(samples, bytes.get(), *byteCount);
  return buffer;
}

}  // namespace palaver
