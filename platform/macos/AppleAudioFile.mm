#include "platform/macos/AppleAudioFile.h"

#include <optional>

#import "platform/macos/AudioValues.h"
#include "platform/macos/AutoreleasePool.h"
#import "platform/macos/FoundationValues.h"

namespace palaver {

namespace {

// The system may fail without an error.
PlatformError errorOr(NSError* error, const char* text) {
  if (error) return toPlatformError(error);
  return {"PalaverSTT", -1, text};
}

class AppleAudioFile final : public AudioFile {
 public:
  explicit AppleAudioFile(AVAudioFile* file) : file_(file), format_(toAudioFormat(file.processingFormat)) {}

  const AudioFormat& processingFormat() const override { return format_; }
  std::int64_t length() const override { return file_.length; }
  std::int64_t framePosition() const override { return file_.framePosition; }

  void read(PCMBuffer& buffer) override {
    const AutoreleasePool pool;
    buffer.setFrameLength(0);
    if (buffer.format() != format_)
      throw PlatformError("PalaverSTT", -1, "The buffer has another format than the sound file");
    // A read exactly at the end fails without an error.
    if (buffer.frameCapacity() == 0 || file_.framePosition >= file_.length) return;

    NSError* error = nil;
    AVAudioPCMBuffer* samples = nil;
    BOOL isRead = NO;
    std::optional<PlatformError> raised;
    @try {
      samples = borrow(buffer, file_.processingFormat);
      if (samples) isRead = [file_ readIntoBuffer:samples error:&error];
    } @catch (NSException* exception) {
      raised = toPlatformError(exception);
    }
    if (raised) throw *raised;
    if (!samples)
      throw PlatformError("PalaverSTT", -1, "The system cannot make an audio buffer for the sound file");
    if (!isRead)
      throw errorOr(error, "The sound file cannot be read any further; the system gives no reason");
    buffer.setFrameLength(samples.frameLength);
  }

 private:
  AVAudioFile* const file_;
  const AudioFormat format_;
};

}  // namespace

std::unique_ptr<AudioFile> AppleAudioFiles::openForReading(const std::string& path) {
  const AutoreleasePool pool;
  NSURL* const url = [NSURL fileURLWithFileSystemRepresentation:path.c_str()
                                                    isDirectory:NO
                                                  relativeToURL:nil];
  NSError* error = nil;
  AVAudioFile* file = nil;
  std::optional<PlatformError> raised;
  @try {
    if (url) file = [[AVAudioFile alloc] initForReading:url error:&error];
  } @catch (NSException* exception) {
    raised = toPlatformError(exception);
  }
  if (raised) throw *raised;
  if (!file) throw errorOr(error, "The sound file cannot be opened; the system gives no reason");
  return std::make_unique<AppleAudioFile>(file);
}

}  // namespace palaver
