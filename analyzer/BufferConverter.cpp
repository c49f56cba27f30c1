#include "analyzer/BufferConverter.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace palaver {

BufferConverter::ConversionError::ConversionError(Case which, std::optional<PlatformError> underlying)
    : which_(which),
      underlying_(std::move(underlying)),
      text_("The operation couldn’t be completed. (PalaverSTTHelper.BufferConverter.ConversionError error " +
            std::to_string(static_cast<int>(which)) + ".)") {}

std::shared_ptr<const PCMBuffer> BufferConverter::convert(const std::shared_ptr<const PCMBuffer>& buffer,
                                                          const AudioFormat& format) {
  if (buffer->format() == format) return buffer;
  if (!converter_ || converter_->outputFormat() != format || converter_->inputFormat() != buffer->format()) {
    converter_ = audioConverters_.makeConverter(buffer->format(), format);
    if (converter_) converter_->setPrimeMethod(ConverterPrimeMethod::none);
  }
  if (!converter_) throw ConversionError(ConversionError::Case::failedToCreateConverter);

  // Rounded up. A capacity rounded down would leave a fraction of a frame in the converter with each call.
  const double ratio = converter_->outputFormat().sampleRate / converter_->inputFormat().sampleRate;
  const double capacity = std::max(1.0, std::ceil(buffer->frameLength() * ratio));
  if (!(capacity <= std::numeric_limits<std::uint32_t>::max()))
    throw ConversionError(ConversionError::Case::failedToCreateBuffer);
  auto output = audioBuffers_.makeBuffer(converter_->outputFormat(), static_cast<std::uint32_t>(capacity));
  if (!output) throw ConversionError(ConversionError::Case::failedToCreateBuffer);

  bool given = false;
  std::optional<PlatformError> error;
  const auto status = converter_->convert(
      *output, error, [&](ConverterInputStatus& inputStatus) -> std::shared_ptr<const PCMBuffer> {
        if (std::exchange(given, true)) {
          // Never signals the end of the stream, so the converter keeps its pending frames for
          // the next chunk.
          inputStatus = ConverterInputStatus::noDataNow;
          return nullptr;
        }
        inputStatus = ConverterInputStatus::haveData;
        return buffer;
      });
  if (status == ConverterOutputStatus::error)
    throw ConversionError(ConversionError::Case::conversionFailed, std::move(error));
  return output;
}

}  // namespace palaver
