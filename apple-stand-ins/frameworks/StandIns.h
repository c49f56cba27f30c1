// What the stand-ins share. For Objective-C++ with ARC.
#pragma once

#import <AVFAudio/AVFAudio.h>

#include <memory>

#include "platform/AudioBuffer.h"
#include "platform/PlatformError.h"

// The root class's: the object itself, which is right for what never changes.
@interface NSObject (CopyingOfConstants)
- (id)copyWithZone:(struct _NSZone *)zone;
@end

namespace palaver {

NSError *makeError(const PlatformError &error);

[[noreturn]] void raise(NSExceptionName name, const char *reason);

AudioFormat formatOf(AVAudioFormat *format);

// The frames in use, copied. Of 16-bit integers or 32-bit floats.
std::shared_ptr<PCMBuffer> copySamples(AVAudioPCMBuffer *buffer);

}  // namespace palaver
