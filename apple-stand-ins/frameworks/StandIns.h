// Declares helpers shared by the stand-ins. For Objective-C++ with ARC.
#pragma once

#import <AVFAudio/AVFAudio.h>

#include <memory>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

// The root class's implementation returns the object itself, which is correct for immutable objects.
@interface NSObject (CopyingOfConstants)
- (id)copyWithZone:(struct _NSZone *)zone;
@end

namespace palaver {

NSError *makeError(const PlatformError &error);

[[noreturn]] void raise(NSExceptionName name, const char *reason);

AudioFormat formatOf(AVAudioFormat *format);

// Copies the frames in use: 16-bit integers or 32-bit floats.
std::shared_ptr<PCMBuffer> copySamples(AVAudioPCMBuffer *buffer);

}  // namespace palaver
