// Converts audio formats and buffers between AVFAudio and the contracts. For Objective-C++ with ARC. Any
// thread, inside an autorelease pool.
#pragma once

#import <AVFAudio/AVFAudio.h>

#include <memory>

#include "platform/AudioBuffer.h"

namespace palaver {

// Returns nil when the system has no such format. It has none of more than two channels.
AVAudioFormat* toAVAudioFormat(const AudioFormat& format);

AudioFormat toAudioFormat(AVAudioFormat* format);

// Creates a system buffer over our samples, without copying them. Keeps our buffer until the system releases
// its own, which must not be written to. `format` must have the same sample layout as the buffer's own
// format. Returns nil for a buffer without 16-bit integer or 32-bit float samples, or of capacity 0. Raises
// the system's exceptions.
AVAudioPCMBuffer* wrap(std::shared_ptr<const PCMBuffer> buffer, AVAudioFormat* format);

// Like wrap(), but writable, and over a buffer that the caller keeps alive. Its frame length is 0,
// independent of the buffer's.
AVAudioPCMBuffer* borrow(PCMBuffer& buffer, AVAudioFormat* format);

}  // namespace palaver
