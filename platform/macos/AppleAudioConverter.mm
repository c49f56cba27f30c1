#include "platform/macos/AppleAudioConverter.h"

#include <exception>
#include <utility>

#import "platform/macos/AudioValues.h"
#include "platform/macos/AutoreleasePool.h"
#import "platform/macos/FoundationValues.h"

namespace palaver {

namespace {

PlatformError noBufferError() {
  return {"PalaverSTT", -1, "The system cannot make an audio buffer for the converter"};
}

class AppleAudioConverter final : public AudioConverter {
 public:
  explicit AppleAudioConverter(AVAudioConverter* converter)
      : converter_(converter),
        from_(toAudioFormat(converter.inputFormat)),
        to_(toAudioFormat(converter.outputFormat)) {}

  const AudioFormat& inputFormat() const override { return from_; }
  const AudioFormat& outputFormat() const override { return to_; }

  void setPrimeMethod(ConverterPrimeMethod method) override {
    const AutoreleasePool pool;
    converter_.primeMethod = static_cast<AVAudioConverterPrimeMethod>(method);
  }

  ConverterOutputStatus convert(PCMBuffer& output, std::optional<PlatformError>& error,
                                const InputBlock& input) override {
    const AutoreleasePool pool;
    output.setFrameLength(0);
    Input source{input};
    NSError* failure = nil;
    AVAudioConverterOutputStatus status = AVAudioConverterOutputStatus_Error;
    AVAudioPCMBuffer* converted = nil;
    @try {
      converted = borrow(output, converter_.outputFormat);
      if (converted) status = convertInto(converted, source, &failure);
    } @catch (NSException* exception) {
      error = toPlatformError(exception);
      return ConverterOutputStatus::error;
    }
    if (source.thrown) std::rethrow_exception(source.thrown);
    if (source.failure || !converted) {
      error = noBufferError();
      return ConverterOutputStatus::error;
    }
    if (failure) error = toPlatformError(failure);
    output.setFrameLength(converted.frameLength);
    return static_cast<ConverterOutputStatus>(status);
  }

 private:
  // Holds the caller's block and its errors. No C++ exception may pass through the system's functions.
  struct Input {
    const InputBlock& ask;
    std::exception_ptr thrown = nullptr;
    bool failure = false;

    AVAudioPCMBuffer* next(AVAudioConverterInputStatus* status) {
      *status = AVAudioConverterInputStatus_NoDataNow;
      if (thrown || failure) return nil;
      try {
        for (;;) {
          auto inputStatus = ConverterInputStatus::noDataNow;
          auto buffer = ask(inputStatus);
          if (inputStatus != ConverterInputStatus::haveData || !buffer) {
            if (inputStatus == ConverterInputStatus::endOfStream)
              *status = AVAudioConverterInputStatus_EndOfStream;
            return nil;
          }
          // The converter below AVAudioConverter takes data of 0 frames as the end of the stream. Source:
          // Apple's documentation of AudioConverterComplexInputDataProc.
          if (buffer->frameLength() == 0) continue;
          AVAudioFormat* const format = toAVAudioFormat(buffer->format());
          AVAudioPCMBuffer* const wrapped = wrap(std::move(buffer), format);
          failure = !wrapped;
          if (wrapped) *status = AVAudioConverterInputStatus_HaveData;
          return wrapped;
        }
      } catch (...) {
        thrown = std::current_exception();
        return nil;
      }
    }
  };

  AVAudioConverterOutputStatus convertInto(AVAudioPCMBuffer* output, Input& source, NSError** error) {
    Input* const reachable = &source;
    return
        [converter_ convertToBuffer:output
                              error:error
                 withInputFromBlock:^AVAudioBuffer*(AVAudioPacketCount, AVAudioConverterInputStatus* status) {
                   return reachable->next(status);
                 }];
  }

  AVAudioConverter* const converter_;
  const AudioFormat from_;
  const AudioFormat to_;
};

}  // namespace

std::unique_ptr<AudioConverter> AppleAudioConverters::makeConverter(const AudioFormat& from,
                                                                    const AudioFormat& to) {
  const AutoreleasePool pool;
  AVAudioFormat* const input = toAVAudioFormat(from);
  AVAudioFormat* const output = toAVAudioFormat(to);
  if (!input || !output) return nullptr;
  AVAudioConverter* const converter = [[AVAudioConverter alloc] initFromFormat:input toFormat:output];
  if (!converter) return nullptr;
  return std::make_unique<AppleAudioConverter>(converter);
}

}  // namespace palaver
